// Good images of any message type, and the positions in them that decide where a decoder reads.
#pragma once

#include <cstdint>
#include <vector>

#include "codec.h"

// In the compact layout a record without zeros, the longest of many, and one with every second number zero; in the
// fixed layout one without zeros.
std::vector<reference::Bytes> good_images(const records::Type &type, records::Random &random);

// Where an image says where things are.
struct Positions {
  std::vector<uint32_t> entries;  // the vtables' words, of 2 bytes
  std::vector<uint32_t> words;    // offset words, distances to vtables and counts, of 4 bytes
};

Positions find_positions(const records::Type &type, const reference::Bytes &image);
