// The request that validates a downloaded package and opens its history record.
#pragma once

#include "core/request.h"

// FOTA_MSG_VALIDATE_UPDATE_PKG. The agent named in the package information must own the session. On success
// the record is pending and named by the tracking cookie; on a failed validation it says so, and the session
// is over. The first 2312 payload bytes come back zero but for `value`: the record's id when it was stored.
// Main thread; also called by the side-load with a request of its own.
void handle_pkg_verfication(fota_event_msg* msg);
