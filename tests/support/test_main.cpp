// main() of every test program: the tests run in a sandbox of their own.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string_view>

#include "sandbox.h"

// More folders to keep in sight, from a variable that separates them by colons.
static void add_folders(std::vector<std::string>& folders, const char* variable) {
    const char* const more = std::getenv(variable);
    std::istringstream names(more != nullptr ? more : "");
    for (std::string folder; std::getline(names, folder, ':');) {
        if (!folder.empty()) folders.push_back(folder);
    }
}

int main(int argc, char** argv) {
    // Listing runs no test, and writes its answer where the build wants it.
    bool lists_only = false;
    for (int i = 1; i < argc; ++i)
        lists_only = lists_only || std::string_view(argv[i]) == "--gtest_list_tests";
    if (!lists_only) {
        sandbox_options options;
        options.keep.push_back(sandbox_program_folder());
        add_folders(options.keep, "FOTA_KEEP");
        add_folders(options.keep_writable, "FOTA_KEEP_WRITABLE");
        sandbox_enter(options);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
