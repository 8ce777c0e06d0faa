// SPDX-License-Identifier: Apache-2.0
#include "similar_word.h"

#include <algorithm>
#include <cstddef>

namespace scope {
namespace {

// The fewest insertions, deletions, replacements and swaps of neighbours that make `b` of `a`.
std::size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> edits(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        edits[i][j] = i + j;
        continue;
      }
      const std::size_t replaced = edits[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      edits[i][j] = std::min({edits[i - 1][j] + 1, edits[i][j - 1] + 1, replaced});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) edits[i][j] = std::min(edits[i][j], edits[i - 2][j - 2] + 1);
    }
  }
  return edits[a.size()][b.size()];
}

}  // namespace

std::string Similar(const std::string& word, const std::vector<std::string>& words) {
  const auto best = std::min_element(words.begin(), words.end(), [&](const auto& a, const auto& b) {
    return Distance(word, a) < Distance(word, b);
  });
  const bool close =
      best != words.end() && Distance(word, *best) <= std::max<std::size_t>(1, word.size() / 3);
  return close ? *best : "";
}

}  // namespace scope
