#include "describe/suggestion.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace drix::describe {
namespace {

constexpr std::size_t kLongestWord = 64;  // longer words are no typing errors
constexpr std::size_t kMostErrors = 3;

std::size_t distance(std::string_view a, std::string_view b) {
  using Row = std::array<std::size_t, kLongestWord + 1>;
  Row before = {}, last, row;
  for (std::size_t k = 0; k <= b.size(); ++k) last[k] = k;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (std::size_t k = 1; k <= b.size(); ++k) {
      const bool same = a[i - 1] == b[k - 1];
      row[k] = std::min({last[k] + 1, row[k - 1] + 1, last[k - 1] + (same ? 0 : 1)});
      const bool swapped = i > 1 && k > 1 && a[i - 1] == b[k - 2] && a[i - 2] == b[k - 1];
      if (swapped) row[k] = std::min(row[k], before[k - 2] + 1);
    }
    before = last;
    last = row;
  }
  return last[b.size()];
}

}  // namespace

void Suggestion::consider(std::string_view candidate, std::string_view shown) {
  if (word_.size() > kLongestWord || candidate.size() > kLongestWord) return;
  const std::size_t errors = distance(word_, candidate);
  const std::size_t most = std::clamp<std::size_t>(std::min(word_.size(), candidate.size()) / 3, 1, kMostErrors);
  if (errors > most || errors >= distance_) return;
  distance_ = errors;
  best_ = shown;
}

std::string Suggestion::text() const { return is_there() ? "; did you mean \"" + best_ + "\"?" : ""; }

}  // namespace drix::describe
