// A second codec, driven by the typed-in slot lists and as simple as it can be: it judges what the library writes and
// what it makes of any buffer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "schema.h"

namespace reference {

using Bytes = std::vector<uint8_t>;

// Encodes in the compact layout.
Bytes pack(const records::Type &type, const void *record);

// Encodes a fixed-length type in the fixed layout; the bytes that the layout leaves unwritten are zero here and false
// in written.
Bytes build_fixed(const records::Type &type, const void *record, std::vector<bool> *written = nullptr);

struct LogCall {
  uint32_t code;
  std::string function;
  std::string text;
  bool operator==(const LogCall &) const = default;
};

struct MemoryCall {
  uint32_t size;  // of the block
  std::string function;
  bool operator==(const MemoryCall &) const = default;
};

// What a decoder did to the platform, in order.
struct Trace {
  std::vector<LogCall> logs;
  std::vector<MemoryCall> allocations;
  std::vector<MemoryCall> frees;
};

// Decodes into a record as the library is to do it. Fails the allocation with the given number, counted from 0. True
// when every slot was decoded.
bool decode(const records::Type &type, const uint8_t *buffer, uint32_t length, void *record, Trace &trace,
            size_t failing_allocation = SIZE_MAX);

// Releases a record that decode filled.
void release(const records::Type &type, void *record, Trace &trace);

}  // namespace reference
