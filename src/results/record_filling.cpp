#include "results/record_filling.h"

#include "common/text.h"
#include "fota/request.h"
#include "history/history_slots.h"
#include "results/cookies.h"

namespace {

// A staged text, as its file holds it; empty when there is none.
void copy_staged(char (&dst)[FOTA_TEXT_SIZE], fota_rc (*read)(char (&text)[FOTA_TEXT_SIZE])) {
    char text[FOTA_TEXT_SIZE] = {};
    (void)read(text);
    text_copy(dst, text);
}

}  // namespace

fota_rc fill_record_from_pkg_info(const fota_pkg_info* info, fota_history_rec* record) {
    fota_pkg_info* filled = &record->pkg_info;
    record->rec_type = FOTA_REC_UPDATE;
    text_copy(filled->agent_name, info->agent_name);
    text_copy(filled->update_method, info->update_method);

    text_copy(filled->pkg_description, info->pkg_description);
    if (filled->pkg_description[0] == '\0') copy_staged(filled->pkg_description, fota_get_pkg_description);
    text_copy(filled->pkg_name, info->pkg_name);
    if (filled->pkg_name[0] == '\0') text_copy(filled->pkg_name, filled->pkg_description);
    text_copy(filled->pkg_ver, info->pkg_ver);
    if (filled->pkg_ver[0] == '\0') copy_staged(filled->pkg_ver, fota_get_target_ver);
    text_copy(filled->manufacturer, info->manufacturer);
    if (filled->manufacturer[0] == '\0') text_copy(filled->manufacturer, FOTA_DEFAULT_MANUFACTURER);

    filled->est_update_time = info->est_update_time;
    if (info->est_update_time != 0) {
        (void)fota_set_est_update_time(info->est_update_time);
    } else {
        (void)fota_get_est_update_time(&filled->est_update_time);
    }
    filled->pkg_size = info->pkg_size;
    filled->pkg_info_word = info->pkg_info_word;

    local_date_now(record->update_date, sizeof record->update_date);
    return save_update_check_time(record->update_date);
}
