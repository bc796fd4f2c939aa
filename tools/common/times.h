// Times for scripts.
#pragma once

#include <string>

// The time now, in local time with its offset: "2026-11-24T23:49:43.120+01:00", which RFC 3339 lays down.
[[nodiscard]] std::string rfc3339_now();

// A record's date, MM-DD-YYYY-hh:mm:ss in local time, in the same form to the second; empty for any other
// text.
[[nodiscard]] std::string rfc3339_date(const std::string& text);
