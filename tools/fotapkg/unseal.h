// Packages and details that were made before: signed again, or taken out.
#pragma once

#include <filesystem>
#include <optional>

#include "sealing.h"

struct sign_options {
    std::filesystem::path input;
    sealing_options sealing;
};

// Makes a package of an archive of details, or a bundle of a folder of pieces, that was signed elsewhere or
// is signed here. What came of it goes to `facts`, here and below.
void sign(const sign_options& options, json& facts);

// Makes a package of the details in a package or a bundle, whose signature has to be good, and which the
// folder of keys has to open.
void resign(const sign_options& options, json& facts);

struct extract_options {
    std::filesystem::path file, keys;
    bool details_only = false;     // the output is the archive of the details, not a folder
    std::filesystem::path output;  // appears only when it is complete
};

// Takes out what devices unpack into their staging folder, links left out.
void extract(const extract_options& options, json& facts);
