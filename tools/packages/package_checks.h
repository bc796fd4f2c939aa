// The daemon's checks of a package or a bundle, in its order, on any machine that has a device's keys. They
// run the daemon's own code; who links them brings no device services: daemon_log.cpp stands in for the one
// that this code calls.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "fota/result_codes.h"
#include "tools/common/output.h"
#include "tools/packages/archives.h"

struct check_result {
    std::string name;                // such as "decryption"
    fota_rc code = FOTA_RC_SUCCESS;  // what the daemon's step comes to
    std::string text;                // what was found, or what is wrong; not escaped
    std::vector<output_line> notes;  // more that was found, or the daemon's own log lines; names may be empty
    [[nodiscard]] bool ok() const { return code == FOTA_RC_SUCCESS; }
};

struct check_report {
    bool is_bundle = false;
    std::vector<check_result> results;  // in the daemon's order; the last one alone may have failed
    fota_rc answer = FOTA_RC_SUCCESS;   // what the daemon tells the client whose request ends in the last one
    std::optional<uint64_t> package_size;  // known when the file, or the pieces of a bundle, are good
    // Known when the last check was made and is good.
    std::vector<std::string> source_versions;  // as the device reads them
    std::vector<std::string> target_versions;  // one, where all is well
    std::string description;
    std::optional<uint32_t> estimate_secs;  // of the installation
    uint64_t data_bytes = 0;  // most that the validation has on the data file system, beside the package
    uint64_t work_bytes = 0;  // most that it has in the work folder
    [[nodiscard]] bool good() const { return answer == FOTA_RC_SUCCESS; }
};

struct check_options {
    std::filesystem::path keys;  // folder of device.pem, build_cert.pem and, for a bundle, build_pubkey.pem
    bool is_bundle = false;      // by the caller's word, even when it lacks its list of pieces
    std::optional<uint64_t> limit;  // bytes: the device's MaxPkgSizeAllowed; none: the size is not checked
    std::function<void(const check_result&)> on_result;  // called as each check ends; may be empty
    bool without_device_key = false;                     // ends before the first check that needs device.pem
};

// Checks `file`, with `reader` to unpack archives, up to the first check that fails. A bundle is also what
// has a list of pieces; the package that its pieces make is checked too. Throws `failure` for trouble on this
// machine, a missing key among it. One call at a time.
[[nodiscard]] check_report check_package_file(const std::filesystem::path& file, const archive_reader& reader,
                                              const check_options& options);
