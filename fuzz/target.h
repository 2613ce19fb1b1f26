// What the fuzz targets share. Each is driven by libFuzzer or, in the ordinary build, by replay.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "entry.h"
#include "judge.h"

namespace fuzz {

inline std::vector<judge::Subject> subjects_of(const std::vector<const reference::Type *> &types) {
  std::vector<judge::Subject> subjects;
  for (const reference::Type *type : types) subjects.emplace_back(*type);
  return subjects;
}

// Ends the process unless there is no fault.
inline void expect_none(const judge::Subject &subject, const std::string &fault) {
  if (fault.empty()) return;
  std::fprintf(stderr, "%s: %s\n", subject.type->prefix().c_str(), fault.c_str());
  std::abort();
}

// Judges a decoding and then, for each allocation in it, one in which that allocation fails.
inline void judge_decoding(const judge::Subject &subject, const reference::Bytes &image) {
  const auto n = static_cast<uint32_t>(image.size());
  expect_none(subject, judge::decode(subject, image.data(), n));
  const std::size_t allocations = judge::last_trace().allocations.size();
  for (std::size_t i = 0; i < allocations; ++i) expect_none(subject, judge::decode(subject, image.data(), n, i));
}

}  // namespace fuzz
