#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iostream>

#include "sandbox_reexec.h"

// Tests use the fixed segment key, queue name and marker paths, and start the real binaries:
// each test process re-executes itself inside a private sandbox so that runs never meet.
int main(int argc, char** argv) {
    reexecInSandbox();
    // Sanitizer reports of the programs a test starts go to files that fail the test, whether or
    // not it looks at their exit status or output (a service killed at the end, a shell's tool).
    const std::string reports = "/run/aipq_sanitizer_reports." + std::to_string(getpid());
    if (std::getenv("AIPQ_SANDBOXED") != nullptr && mkdir(reports.c_str(), 0755) == 0) {
        for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
            const std::string set = std::getenv(name) != nullptr ? std::getenv(name) : "";
            setenv(name, (set + ":print_suppressions=0:log_path=" + reports + "/r").c_str(), 1);
        }
    }
    ::testing::InitGoogleTest(&argc, argv);
    int failed = RUN_ALL_TESTS();
    if (DIR* dir = opendir(reports.c_str())) {
        for (dirent* e; (e = readdir(dir)) != nullptr;) {
            if (e->d_name[0] != '.') {
                std::cerr << std::ifstream(reports + "/" + e->d_name).rdbuf();
                failed = 1;
            }
        }
        closedir(dir);
    }
    return failed;
}
