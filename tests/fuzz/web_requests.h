// What browsers and strangers send to the page, by the server's own code; the other side of rights.h is
// played.
#pragma once

#include <string_view>

// `input`: a byte for the stage that the device is in, one for what its answers are full of, one for the
// result; then what a browser sends, in pieces that a NUL ends. In it \1 stands for the session's identifier,
// \2 for its token, \3 for the upload's identifier.
void send_web_requests(std::string_view input);
