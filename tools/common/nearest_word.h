// What a mistyped word was meant to be.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The one of `words` that the fewest edits lead to: a letter more, less, another, or two swapped. Empty when
// none is near.
[[nodiscard]] std::string nearest_word(std::string_view word, const std::vector<std::string>& words);
