#include "results/version_strings.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "modem2.h"

namespace {

constexpr char DIGITS[] = "0123456789";

// Cuts `text` after its leading digits with at most one "." among them.
void keep_leading_version_number(char* text) {
    size_t length = strspn(text, DIGITS);
    if (text[length] == '.') length += 1 + strspn(text + length + 1, DIGITS);
    text[length] = '\0';
}

void cut_at_space(char* text) {
    text[strcspn(text, " ")] = '\0';
}

}  // namespace

fota_rc get_kernel_version(char (&out)[FOTA_TEXT_SIZE]) {
    char release[FOTA_TEXT_SIZE];
    const fota_rc rc = fota_read_str_from_file(FOTA_KERNEL_RELEASE, release);
    if (rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("Unable to get the kernel version from %s\n", FOTA_KERNEL_RELEASE);
        return rc;
    }
    text_trim(release);
    keep_leading_version_number(release);

    struct stat info = {};
    if (lstat(FOTA_KERNEL_MINOR_VERSION, &info) != 0) {
        text_format(out, FOTA_TEXT_SIZE, "%s", release);
        return FOTA_RC_SUCCESS;
    }
    char minor[FOTA_TEXT_SIZE];
    const fota_rc minor_rc = fota_read_str_from_file(FOTA_KERNEL_MINOR_VERSION, minor);
    if (minor_rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("Unable to get the kernel version from %s\n", FOTA_KERNEL_MINOR_VERSION);
        return minor_rc;
    }
    text_trim(minor);
    text_format(out, FOTA_TEXT_SIZE, "%s.%s", release, minor);
    return FOTA_RC_SUCCESS;
}

fota_rc construct_fota_version_string_from_device(char (&out)[FOTA_TEXT_SIZE]) {
    LOG_DEBUG_AS(nullptr, "%%%%%% %s  %%%%%%%%\n", __func__);
    memset(out, 0, FOTA_TEXT_SIZE);
    modem2_info modem = {};
    (void)modem2_get_info(&modem);
    text_copy(out, modem.fw_version);
    cut_at_space(out);

    char os_version[FOTA_TEXT_SIZE];
    const fota_rc os_rc = fota_read_str_from_file(FOTA_OS_VERSION, os_version);
    if (os_rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("Unable to get the vexaos version from /opt/qast/etc/vexaos-version\n");
        return os_rc;
    }
    text_trim(os_version);
    char kernel_version[FOTA_TEXT_SIZE];
    const fota_rc kernel_rc = get_kernel_version(kernel_version);
    if (kernel_rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("Unable to get the kernel version\n");
        return kernel_rc;
    }
    char tail[2 * FOTA_TEXT_SIZE + 2];
    text_format(tail, sizeof tail, "-%s-%s", kernel_version, os_version);
    text_append(out, tail);
    LOG_DEBUG("the device firmware version :: [%s] \n", out);
    return FOTA_RC_SUCCESS;
}

fota_rc construct_fota_version_string(char (&out)[FOTA_TEXT_SIZE], const fota_device_info* device) {
    char modem[FOTA_TEXT_SIZE];
    char os[FOTA_TEXT_SIZE];
    char pri[FOTA_TEXT_SIZE];
    text_copy(modem, device->modem_version);
    text_copy(os, device->os_version);
    text_copy(pri, device->pri_version);
    LOG_DEBUG("Input Modem ver:%s, Vexaos ver:%s, PRI ver:%s\n", modem, os, pri);

    const char* prefix = fota_get_platform_prefix();
    text_format(out, FOTA_TEXT_SIZE, "%s%s%s", prefix, prefix[0] != '\0' ? "-" : "",
                fota_config.no_modem_version == 0 ? modem : "0");
    cut_at_space(out);
    text_append(out, FOTA_TEXT_SIZE, "-", 1);
    text_append(out, os);
    return FOTA_RC_SUCCESS;
}

fota_rc verify_src_version(const char* device_version) {
    const file_ptr stream = open_regular_for_reading(FOTA_STAGING_SRC_VER);
    if (!stream) {
        LOG_NOTICE("File not found: %s\n", FOTA_STAGING_SRC_VER);
        return FOTA_RC_FILE_NOT_FOUND;
    }
    char line[FOTA_TEXT_SIZE];
    while (fgets(line, sizeof line, stream.get()) != nullptr) {
        text_trim(line);
        LOG_NOTICE("fw_ver [%s] :: device_ver [%s]\n", line, device_version);
        if (strcmp(line, device_version) == 0) {
            LOG_NOTICE("the device version matched[%s] with pkg src ver [%s]\n", device_version, line);
            return FOTA_RC_SUCCESS;
        }
    }
    return FOTA_RC_FAILURE;
}

fota_rc check_source_package_version() {
    char device_version[FOTA_TEXT_SIZE];
    if (construct_fota_version_string_from_device(device_version) != FOTA_RC_SUCCESS) {
        LOG_ERROR("construct_fota_version_string_from_device() failed\n");
        return FOTA_RC_FAILURE;
    }
    if (verify_src_version(device_version) != FOTA_RC_SUCCESS) {
        LOG_ERROR("The device version[%s] is not matching with pkg src version\n", device_version);
        return FOTA_RC_FAILURE;
    }
    return FOTA_RC_SUCCESS;
}
