#include "cli/suggestion.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

namespace tolvane::agent {

namespace {

// Insertions, deletions and replacements; exchanged neighbours count as one.
std::size_t distanceOf(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> table(a.size() + 1,
                                                std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) table[i][0] = i;
    std::iota(table[0].begin(), table[0].end(), 0U);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        for (std::size_t j = 1; j <= b.size(); ++j) {
            std::size_t replaced = table[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            table[i][j] = std::min({replaced, table[i - 1][j] + 1, table[i][j - 1] + 1});
            bool exchanged = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (exchanged) table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
        }
    }
    return table[a.size()][b.size()];
}

}  // namespace

std::string suggestionFor(const std::string& typed, const std::vector<std::string>& known) {
    constexpr std::size_t kLongest = 40;
    if (typed.size() > kLongest) return "";
    std::size_t limit = typed.size() <= 4 ? 2 : 3;
    std::string best;
    for (const std::string& word : known) {
        bool begun = typed.size() >= 3 && word.starts_with(typed);
        std::size_t distance = begun ? 0 : distanceOf(typed, word);
        if (distance >= limit || distance >= word.size()) continue;
        limit = distance;
        best = word;
    }
    return best.empty() ? "" : fmt::format("; did you mean '{}'?", best);
}

}  // namespace tolvane::agent
