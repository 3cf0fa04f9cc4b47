#include "options/nearest.hpp"

#include <algorithm>

namespace tolvan::vesk::tool {

namespace {

constexpr std::size_t shortest_beginning = 2;

bool exchanged(const std::string& a, std::size_t i, const std::string& b, std::size_t j) {
    return i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
}

// How many characters have to be changed, added, left out or exchanged with their neighbour. The table has a
// row for each length of a, and a column for each of b.
std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> table(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i)
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                table[i][j] = i + j;
                continue;
            }
            table[i][j] = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1,
                                    table[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (exchanged(a, i, b, j)) table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
        }
    return table[a.size()][b.size()];
}

bool is_beginning(const std::string& beginning, const std::string& text) {
    return beginning.size() >= shortest_beginning && text.starts_with(beginning);
}

std::size_t strangeness(const std::string& given, const std::string& name) {
    if (is_beginning(given, name) || is_beginning(name, given)) return 1;
    return distance(given, name);
}

}  // namespace

std::string nearest(const std::string& given, const std::vector<std::string>& names) {
    std::string best;
    std::size_t least = (given.size() + 2) / 3 + 1;
    for (const auto& name : names) {
        const std::size_t found = strangeness(given, name);
        if (found >= least) continue;
        least = found;
        best = name;
    }
    return best;
}

}  // namespace tolvan::vesk::tool
