// Message queue service: carries requests to the daemon and its responses back.
#ifndef FOTA_PLATFORM_MSGQ_H
#define FOTA_PLATFORM_MSGQ_H

#include "platform_result.h"

#ifdef __cplusplus
extern "C" {
#endif

// Opens the request queue `name` ("/" and a name) for receiving `depth` messages of at most `max_msg_size`
// bytes, and makes it when it does not exist. A queue of the same size and depth that is already there, and
// this user's, is kept with the requests waiting in it; any other is removed and made anew. The mode is 0660
// in the end, whatever it was. Returns a descriptor that select() can watch, mq_close() closes and no child
// process inherits, or -1 with errno set. Main thread only.
PLATFORM_RESULT int msgq_create(const char* name, int max_msg_size, int depth);

// Takes one message of at most `size` bytes off `queue`; `flags` is 0. Never blocks.
// Returns the number of bytes received, or -1 with errno set (EAGAIN: the queue is empty). Main
// thread only.
PLATFORM_RESULT int msgq_receive(int queue, void* buffer, int size, int flags);

// Sends `size` bytes of `buffer`, a request as received, back to the requester that its first 216 bytes name.
// Never blocks and keeps nothing open: a requester that is gone, has no room, or names no queue of its own
// (malformed, or one that this process receives on) gets nothing, and a log line says so. Returns 0 when the
// response is in the requester's queue, else -1. Main thread only.
PLATFORM_RESULT int msgq_resp_handler(const void* buffer, int size);

#ifdef __cplusplus
}
#endif

#endif
