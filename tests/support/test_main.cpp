// main() of every test program: the tests run in a sandbox of their own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string_view>

#include "tools/play/sandbox.h"

int main(int argc, char** argv) {
    // Listing runs no test, and writes its answer where the build wants it.
    bool lists_only = false;
    for (int i = 1; i < argc; ++i)
        lists_only = lists_only || std::string_view(argv[i]) == "--gtest_list_tests";
    if (!lists_only) {
        sandbox_options options;
        options.keep.push_back(sandbox_program_folder());
        // More folders to keep in sight, separated by colons.
        const char* const more = std::getenv("FOTA_KEEP");
        std::istringstream folders(more != nullptr ? more : "");
        for (std::string folder; std::getline(folders, folder, ':');) {
            if (!folder.empty()) options.keep.push_back(folder);
        }
        // Where the counters of a coverage build are to go, out of the way of tests that wipe their device.
        const char* const counters = std::getenv("GCOV_PREFIX");
        const std::string inside = std::string(SANDBOX_FOLDER) + "/counters";
        if (counters != nullptr) options.places.push_back({counters, inside});
        sandbox_enter(options);
        if (counters != nullptr) setenv("GCOV_PREFIX", inside.c_str(), 1);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
