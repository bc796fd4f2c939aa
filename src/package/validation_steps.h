// The steps of a validation, wherever that is: on the device, or where a tool checks a package.
#pragma once

#include "fota/result_codes.h"

// The name that the log lines of all steps carry.
inline constexpr char VALIDATION_LOG_NAME[] = "unpack_and_validate_pkg";

// What can fail in a validation, in its order. fota_decrypt_file is one step.
enum class validation_step { package_file, member, decryption, unpacking, checksum_list };

// Where a validation works and how it unpacks: unpack_and_validate_pkg has the daemon's own, and tools that
// check packages elsewhere bring theirs. Texts and calls are the caller's, and stay while it runs.
struct validation_setup {
    const char *device_key, *build_cert;
    const char* encrypted;     // the member, taken out of the package
    const char* decrypt_temp;  // decrypted, not verified yet
    const char* details;       // verified: the archive that is unpacked
    const char *staging, *checksum_list;
    bool keeps_inputs;  // `encrypted` and `decrypt_temp` are not removed

    // Makes `encrypted` from the package.
    fota_rc (*unpack_member)(const validation_setup& setup, const char* pkg_path);
    // Makes a fresh `staging` from `details`.
    fota_rc (*unpack_details)(const validation_setup& setup);
    // Called after each step with its result, unless null; false ends the validation.
    bool (*after_step)(const validation_setup& setup, validation_step step, fota_rc rc);
    void* context;  // for these three, which must not throw
};

// The steps of a validation alone: no flag, no sync, no lock, no service of the device but the log. Returns
// the result of the last step that was taken, as unpack_and_validate_pkg does. Main thread.
[[nodiscard]] fota_rc validate_package(const validation_setup& setup, const char* pkg_path);
