// Whether the messages that the daemon reads as streams come to what libcrypto makes of them whole.
#pragma once

#include <string_view>

// Makes the messages to start from; once, before the first of the others.
void make_message_forms();

// Changes one of the messages as `input` says, reads it both ways and compares verdict, output and what
// OpenSSL reports. Ends the process when they differ.
void compare_message_forms(std::string_view input);
