#include "package/sideload_package.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/text.h"
#include "core/log.h"
#include "fota/request.h"
#include "package/crypto.h"
#include "package/staging_tools.h"
#include "watchdog.h"

namespace {

constexpr char WATCHDOG_NAME[] = "fota";

// The signature of piece P is called P and a suffix of this many characters.
constexpr size_t SUFFIX_LENGTH = 5;

// A link would lead to a file that the bundle does not bring, and that may change after it was verified.
bool is_file_of_bundle(const char* path) {
    struct stat info = {};
    return lstat(path, &info) == 0 && S_ISREG(info.st_mode);
}

// Checks one listed piece and joins it. `function` is the caller's name for the log.
bool join_piece(const char* dir, const char* listed_name, const char* function) {
    // No name leads out of the folder, and a cut path would name another file.
    char signature[FOTA_TEXT_SIZE];
    const size_t length = strlen(dir) + 1 + strlen(listed_name);
    const bool usable = strchr(listed_name, '/') == nullptr && strlen(listed_name) > SUFFIX_LENGTH &&
                        length < sizeof signature;
    text_format(signature, sizeof signature, "%s/%s", dir, listed_name);
    if (!usable || !is_file_of_bundle(signature)) {
        LOG_ERROR_AS(function, "File:%s not found but exists in pkg list\n", listed_name);
        return false;
    }
    char piece[FOTA_TEXT_SIZE];
    text_copy(piece, sizeof piece, signature, length - SUFFIX_LENGTH);
    if (!is_file_of_bundle(piece)) {
        LOG_ERROR_AS(function, "File:%s not found in pkg\n", piece);
        return false;
    }
    (void)watchdog_application_send_keep_alive(WATCHDOG_NAME);
    if (fota_verify_digest_signature(FOTA_BUILD_PUBKEY, piece, signature) != 0) {
        LOG_ERROR_AS(function, "fota_verify_digest_signature() failed for file:%s\n", piece);
        return false;
    }
    LOG_NOTICE_BOTH_AS(function, "Verified [%s]\n", listed_name);
    const fota_rc rc = append_file_and_delete_source(FOTA_UPGRADE_PKG, piece);
    if (rc != FOTA_RC_SUCCESS) {
        LOG_ERROR_AS(function, "append_file_and_delete_source() failed, rc=%d\n", static_cast<int>(rc));
        return false;
    }
    return true;
}

}  // namespace

fota_rc sideload_prepare_package(const char* bundle_path) {
    fota_rc rc = create_a_private_dir(FOTA_SIDELOAD_TMP_DIR);
    if (rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("create_a_fresh_dir() failed\n");
        return rc;
    }
    rc = unzip_a_file(bundle_path, FOTA_SIDELOAD_TMP_DIR);
    if (rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("unzip_a_file() failed\n");
        return rc;
    }
    rc = fota_remove_a_file(bundle_path);
    if (rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("fota_remove_a_file() failed\n");
        return rc;
    }
    rc = sideload_decrypt_files_in_list(FOTA_SIDELOAD_TMP_DIR);
    if (rc != FOTA_RC_SUCCESS) {
        LOG_ERROR("sideload_decrypt_files_in_list() failed, rc=%d\n", static_cast<int>(rc));
        return rc;
    }
    (void)dir_clean_up(FOTA_SIDELOAD_TMP_DIR);
    LOG_NOTICE_BOTH("Package preparation successful\n");
    return FOTA_RC_SUCCESS;
}

fota_rc sideload_decrypt_files_in_list(const char* dir) {
    const file_ptr list(is_file_of_bundle(FOTA_SIDELOAD_PKG_LIST)
                            ? open_regular_for_reading(FOTA_SIDELOAD_PKG_LIST)
                            : nullptr);
    if (!list) {
        LOG_ERROR("Sideload pkg list not found!!\n");
        return FOTA_RC_PKG_INVALID;
    }
    (void)fota_remove_a_file(FOTA_UPGRADE_PKG);
    fota_rc result = FOTA_RC_PKG_INVALID;
    char line[FOTA_TEXT_SIZE];
    while (fgets(line, sizeof line, list.get()) != nullptr) {
        text_trim(line);
        if (line[0] == '\0') continue;
        if (!join_piece(dir, line, __func__)) return FOTA_RC_PKG_INVALID;
        result = FOTA_RC_SUCCESS;
    }
    if (ferror(list.get()) != 0) return FOTA_RC_PKG_INVALID;  // it may name more
    return result;
}
