#pragma once

#include "caps/include/ovrel_caps.h"

struct CapsProductFunctions {
    decltype(&::mdbOpenSessionNoCreate) mdbOpenSessionNoCreate = nullptr;
    decltype(&::mdbCloseSession) mdbCloseSession = nullptr;
    decltype(&::mdbGetProductIDList) mdbGetProductIDList = nullptr;
    decltype(&::mdbGetProduct) mdbGetProduct = nullptr;
    decltype(&::mdbGetProductPayloads) mdbGetProductPayloads = nullptr;
    decltype(&::mdbGetPayload) mdbGetPayload = nullptr;
    decltype(&::pdbOpenSessionNoCreate) pdbOpenSessionNoCreate = nullptr;
    decltype(&::pdbCloseSession) pdbCloseSession = nullptr;
    decltype(&::pdbGetPayloadData) pdbGetPayloadData = nullptr;
    decltype(&::pdbGetPayloadDataKeys) pdbGetPayloadDataKeys = nullptr;
    decltype(&::pdbGetAppLaunchPath) pdbGetAppLaunchPath = nullptr;

    // False when a function is missing: the tables would be half of the truth.
    bool areComplete() const {
        return mdbOpenSessionNoCreate && mdbCloseSession && mdbGetProductIDList && mdbGetProduct &&
               mdbGetProductPayloads && mdbGetPayload && pdbOpenSessionNoCreate &&
               pdbCloseSession && pdbGetPayloadData && pdbGetPayloadDataKeys && pdbGetAppLaunchPath;
    }
};
