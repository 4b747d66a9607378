// Database files that somebody damaged or tampered with, read and written through the C interface.
// The input is the file.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "caps/include/ovrel_caps.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// Every byte of what is handed out must be there to be read.
size_t use(const char* text) {
    const size_t length = std::strlen(text);
    if (length > 65536) {
        std::abort(); // longer than any text that the interface lets through
    }
    return length;
}

void readProducts(capsiSession* session) {
    const char** ids = nullptr;
    if (mdbGetProductIDList(session, &ids) != CAPS_OK) {
        return;
    }
    for (; *ids != nullptr; ++ids) {
        const capsProduct* product = nullptr;
        const char** payloads = nullptr;
        if (mdbGetProduct(session, *ids, &product) != CAPS_OK) {
            std::abort(); // listed, and not there
        }
        (void)use(product->identifier);
        if (mdbGetProductPayloads(session, product, &payloads) != CAPS_OK) {
            continue;
        }
        for (; *payloads != nullptr; ++payloads) {
            const capsPayload* payload = nullptr;
            if (mdbGetPayload(session, *payloads, &payload) != CAPS_OK) {
                std::abort();
            }
            (void)(use(payload->identifier) + use(payload->product) + use(payload->launchPath) +
                   use(payload->kind));
            char path[1024];
            uint32_t pathBytes = sizeof path;
            (void)pdbGetAppLaunchPath(*payloads, path, &pathBytes);
            const char** keys = nullptr;
            for (const capsDomain domain : {0, 4, 6}) {
                if (capsGetPayloadDataKeys(session, *payloads, domain, &keys) != CAPS_OK) {
                    continue;
                }
                for (; *keys != nullptr; ++keys) {
                    const char* value = nullptr;
                    if (pdbGetPayloadData(session, *payloads, domain, *keys, &value) == CAPS_OK) {
                        (void)use(value);
                    }
                }
            }
        }
    }
}

void readDomain(capsiSession* session) {
    const char** subdomains = nullptr;
    if (pcdGetDomainDataSubdomains(session, 1, &subdomains) != CAPS_OK) {
        return;
    }
    for (; *subdomains != nullptr; ++subdomains) {
        (void)use(*subdomains);
        const char** keys = nullptr;
        if (pcdGetDomainDataKeys(session, 1, *subdomains, &keys) != CAPS_OK) {
            continue;
        }
        for (; *keys != nullptr; ++keys) {
            const char* value = nullptr;
            if (pcdGetDomainData(session, 1, *subdomains, *keys, &value) == CAPS_OK) {
                (void)use(value);
            }
        }
    }
}

// In the files' own folder, made anew: what an earlier input left beside the database is not this
// one's.
std::string databaseFile(const uint8_t* data, size_t size) {
    static const TemporaryFolder* const folder = new TemporaryFolder;
    static const std::string path = folder->file("caps.db");
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        (void)unlink((path + suffix).c_str());
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || close(fd) != 0) {
        std::abort();
    }
    setenv("OVREL_CAPS_DB", path.c_str(), 1);
    return path;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = databaseFile(data, size);
    capsiSession* session = nullptr;
    if (pcdOpenSessionNoCreate(&session, 1) != CAPS_OK) {
        return 0;
    }
    readProducts(session);
    readDomain(session);
    uint32_t time = 0;
    (void)capsGetLastModTime(session, &time);
    (void)pcdGetLastModTime(session, &time);
    (void)capsGetLastModTimes(session, &time, &time);
    if (pcdSetDomainData(session, 1, "/ovrel/convey/new-1.0", "Path", "/new") == CAPS_OK) {
        const char* value = nullptr;
        readDomain(session);
        if (pcdGetDomainData(session, 1, "/ovrel/convey/new-1.0", "Path", &value) == CAPS_OK &&
            std::strcmp(value, "/new") != 0) {
            std::abort();
        }
        (void)pcdRemoveDomainData(session, 1, "/ovrel/convey/new-1.0", "Path");
    }
    if (pcdCloseSession(session) != CAPS_OK) {
        std::abort();
    }
    return 0;
}
