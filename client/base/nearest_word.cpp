#include "client/base/nearest_word.h"

#include <algorithm>
#include <cstddef>

namespace qrtln {

namespace {

// The fewest slips that lead from one word to the other.
std::size_t slips_between(const std::string& from, const std::string& to) {
    std::vector<std::vector<std::size_t>> slips(from.size() + 1,
                                                std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = 0; i <= from.size(); ++i)
        for (std::size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                slips[i][j] = i + j;
                continue;
            }
            std::size_t other = from[i - 1] == to[j - 1] ? 0 : 1;
            slips[i][j] =
                std::min({slips[i - 1][j] + 1, slips[i][j - 1] + 1, slips[i - 1][j - 1] + other});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
                slips[i][j] = std::min(slips[i][j], slips[i - 2][j - 2] + 1);
        }
    return slips[from.size()][to.size()];
}

} // namespace

std::string nearest_word(const std::string& typed, const std::vector<std::string>& words) {
    std::string nearest;
    // Half of a short word is no slip.
    std::size_t allowed = std::min<std::size_t>(2, typed.size() / 3);
    for (const std::string& word : words)
        if (std::size_t slips = slips_between(typed, word);
            slips <= allowed && (nearest.empty() || slips < slips_between(typed, nearest)))
            nearest = word;
    return nearest;
}

} // namespace qrtln
