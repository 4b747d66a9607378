#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/Process.h"

// For a test, or a part of one, in which somebody becomes another user: true where this process is
// root, who may. For anybody else the whole test runs once more, as root by way of sudo, or as the
// root of a user namespace with the user's subordinate numbers, and the test fails where it cannot.
inline bool alsoAsRoot() {
    if (getuid() == 0) {
        return true;
    }
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const ProcessResult result = runProcess(
        {"/bin/sh", "-c",
         "! sudo -n true 2>/dev/null || exec sudo -n \"$@\"; exec unshare -r --map-auto \"$@\"",
         "sh", std::filesystem::read_symlink("/proc/self/exe").string(),
         std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name()});
    EXPECT_EQ(result.exitStatus, 0)
        << "as root; it needs to be run by root, by a user with sudo without a password, or by one "
           "with subordinate numbers (/etc/subuid) where the system lets users make namespaces\n"
        << result.out << result.err;
    return false;
}
