// How the device's firmware is named. Any thread.
#pragma once

#include "fota/request.h"

// The kernel's version number, with the image's minor version when it names one: "4.14.98". Else the code of
// fota_read_str_from_file: what is there under its name, a link to nothing included, has to be readable.
[[nodiscard]] fota_rc get_kernel_version(char (&out)[FOTA_TEXT_SIZE]);

// "modem-kernel-os", the text that a side-loaded package's source version has to match. Else the failing
// step's code.
[[nodiscard]] fota_rc construct_fota_version_string_from_device(char (&out)[FOTA_TEXT_SIZE]);

// "[prefix-]modem-os" for the script-driven updater, from what it says of the device; its texts may lack
// their terminator. Always FOTA_RC_SUCCESS.
[[nodiscard]] fota_rc construct_fota_version_string(char (&out)[FOTA_TEXT_SIZE],
                                                    const fota_device_info* device);

// FOTA_RC_SUCCESS when a line of the staged package's source versions is `device_version`; FOTA_RC_FAILURE
// when none is, FOTA_RC_FILE_NOT_FOUND when the package names none.
[[nodiscard]] fota_rc verify_src_version(const char* device_version);

// The same for this device's version. FOTA_RC_SUCCESS or FOTA_RC_FAILURE.
[[nodiscard]] fota_rc check_source_package_version();
