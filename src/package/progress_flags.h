// The staging flags that tell how far an update has come, to the daemon itself and to the installer.
#pragma once

#include "fota/result_codes.h"

enum fota_progress_stage { FOTA_STAGE_PKG_VERIFIED = 1, FOTA_STAGE_PRE_INSTALL = 2 };

// Sets the flag of a stage; for FOTA_STAGE_PRE_INSTALL the one that fits the package, normal or full-image.
// FOTA_RC_FAILURE when it cannot be created or `stage` is none of these; who needs the flag finds it missing.
// Any thread.
[[nodiscard]] fota_rc set_progress_files(int stage);

// Removes all of them, for those that are about to remove what they vouch for: a power cut in the middle
// leaves a part of a package, which must not pass for a whole one, or a full-image flag that nobody would
// ever take away. In a staging directory that is a link they stay: they go with the link. Any thread.
void withdraw_progress_files();

// Removes, from a package that has just been unpacked, what only the daemon and the installer may say: how
// far the update is, how it ended, where to come back. Any thread.
void withdraw_claims_of_package();

// A full image's flag is set before its package's scripts run, and stays until there is a result. Until the
// image's own script begins a mark says that nothing has happened yet. The first takes the mark away; the
// second, at the start of the daemon, the flag too where the mark is: the package can be started again.
void begin_full_fota();
void take_back_full_fota();

// Whether a validated package is staged. Any thread.
[[nodiscard]] bool is_dlpkg_verified();

// FOTA_RC_SUCCESS when an installation has been started (either pre-install flag is set), else
// FOTA_RC_FAILURE.
[[nodiscard]] fota_rc is_pre_install_flag_set();
