// The request that validates a downloaded package and opens its history record.
#pragma once

#include "fota/request.h"

// FOTA_MSG_VALIDATE_UPDATE_PKG. The agent named in the package information must own the session. Results:
//   FOTA_RC_SUCCESS             a pending record, which the tracking cookie names; the session goes on
//   FOTA_RC_FAILURE             whatever check failed: FOTA_RC_PKG_INVALID is never answered. A record with
//   status
//                               404, and the session is over; also, with nothing changed, when no record id
//                               can be given
//   FOTA_RC_PKG_NOT_FOUND, FOTA_RC_PKG_NOT_REGULAR   no record, and the session is over
//   FOTA_RC_INVALID_PARAM       path or agent missing; nothing changed
//   FOTA_RC_LOCK_NOT_AVAILABLE, FOTA_RC_NO_SESSION   not the owner; nothing changed
// A session that is over has lost its lock, package, staging directory and tracking cookie. A record that
// cannot be stored changes no result: the id is then missing in the answer, and after a success the cookie
// names a record that does not exist. A second validation takes the first one's package away, and a start
// that waits with it, and makes another record; the first one's stays pending for ever. The first 2312
// payload bytes come back zero but for `value`: the record's id when it was stored. Main thread; also called
// by the side-load with a request of its own.
void handle_pkg_verfication(fota_event_msg* msg);
