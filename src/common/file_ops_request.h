// The request by which clients create, read and remove small files through the daemon. Main thread.
#pragma once

#include "fota/request.h"

// FOTA_MSG_FILE_OPS. The path is used as the client gives it; no session is needed.
void handle_fota_file_ops(fota_event_msg* msg);
