// The things of a buffer in the order of their bytes, each byte told once.
#pragma once

#include <cstdint>
#include <vector>

#include "inspect/walk.h"

namespace quopa {

struct Entry {
  drix::inspect::TablePath path;
  drix::inspect::Event event;
};

// Keeps the first event for a byte: what elements share is told once, so the map is bounded by the buffer.
class ByteMap : public drix::inspect::Sink {
 public:
  explicit ByteMap(uint32_t length) : taken_(length) {}

  void take(const drix::inspect::TablePath &path, std::span<const drix::inspect::Event> events) override;

  // Adds the word that was not taken, unless it is there.
  void add_culprit(const drix::inspect::Verdict &verdict);

  const std::vector<Entry> &in_order();

 private:
  std::vector<bool> taken_;
  std::vector<Entry> kept_;
};

}  // namespace quopa
