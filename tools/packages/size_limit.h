// The devices' limit for the size of packages, and what becomes of a package beside it.
#pragma once

#include <cstdint>
#include <string>

struct size_judgement {
    const char* verdict;  // "fits", "above" the limit, or "refused"
    std::string text;     // the same for people
};

// Agents that download are told the limit. The start of a side-load refuses more than twice as much, but
// looks at no package that the pieces of a bundle have made.
[[nodiscard]] size_judgement judge_size(uint64_t size, uint64_t limit, bool is_bundle);
