// Decodes a buffer with the library and with the reference codec and compares all that can be seen of it.
#pragma once

#include <cstdint>
#include <string>

#include "codec.h"
#include "operations.h"

namespace judge {

// A copy of bytes between inaccessible pages: reading one byte too far faults.
class Guarded {
 public:
  explicit Guarded(std::size_t capacity);
  ~Guarded();
  Guarded(const Guarded &) = delete;
  Guarded &operator=(const Guarded &) = delete;

  const uint8_t *place(const uint8_t *bytes, std::size_t size);           // up to the page behind it
  const uint8_t *place_at_start(const uint8_t *bytes, std::size_t size);  // from the page before it on

 private:
  std::size_t page_;
  std::size_t pages_;  // bytes between the two that fault
  uint8_t *start_;
};

// A message type with its operations.
struct Subject {
  explicit Subject(const reference::Type &of) : type(&of), library(operations_of(of.prefix())) {}
  const reference::Type *type;
  Operations library;
};

// Decodes and releases; the allocation with this number fails. Returns what the library got wrong: its result, the
// record, log calls, allocations, frees, or blocks that it kept. Empty: nothing.
std::string decode(const Subject &subject, const uint8_t *buffer, uint32_t length,
                   std::size_t failing_allocation = SIZE_MAX);

// Another reader of buffers that a program has judged with every decoding in which no allocation fails: it sees the
// library's record before that is released and returns faults as decode does.
using Observer = std::string (*)(const Subject &subject, const uint8_t *buffer, uint32_t length, const void *record);
void also_judge(Observer observer);

// What the last decode was, by the reference: rejected before the record was touched, given up, or complete.
enum class Outcome { rejected, given_up, complete };
Outcome last_outcome();

// What the reference did to the platform in it, releases included.
const reference::Trace &last_trace();

}  // namespace judge
