#include "tools/common/nearest_word.h"

#include <algorithm>

namespace {

size_t edits_between(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> edits(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                edits[i][j] = i + j;
                continue;
            }
            const size_t other = a[i - 1] == b[j - 1] ? 0 : 1;
            edits[i][j] = std::min({edits[i - 1][j] + 1, edits[i][j - 1] + 1, edits[i - 1][j - 1] + other});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                edits[i][j] = std::min(edits[i][j], edits[i - 2][j - 2] + 1);
        }
    }
    return edits[a.size()][b.size()];
}

}  // namespace

std::string nearest_word(std::string_view word, const std::vector<std::string>& words) {
    constexpr size_t LONGEST = 64;  // no word that is meant has more
    word = word.substr(0, LONGEST);
    std::string nearest;
    size_t fewest = std::max<size_t>(1, word.size() / 3) + 1;
    for (const std::string& candidate : words) {
        const size_t edits = edits_between(word, candidate);
        if (edits >= fewest) continue;
        fewest = edits;
        nearest = candidate;
    }
    return nearest;
}
