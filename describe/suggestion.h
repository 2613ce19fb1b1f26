// What somebody may have meant by a word that is none.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace drix::describe {

// The candidate that fewest typing errors lead to: letters that are missing, added, others or swapped.
class Suggestion {
 public:
  explicit Suggestion(std::string_view word) : word_(word) {}

  // A word that would have been right, and what is to be suggested then.
  void consider(std::string_view candidate, std::string_view shown);
  void consider(std::string_view candidate) { consider(candidate, candidate); }

  bool is_there() const { return !best_.empty(); }

  // "; did you mean "fib6Sync.tlv"?", or nothing where no candidate is near.
  std::string text() const;

 private:
  std::string word_;
  std::string best_;
  std::size_t distance_ = SIZE_MAX;
};

}  // namespace drix::describe
