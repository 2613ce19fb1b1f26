// What the commands read. All of it may be hostile.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capture/blocks.h"
#include "describe/type.h"
#include "inspect/labels.h"

namespace quopa {

// A buffer, a JSON text or any other file is refused when it is longer.
inline constexpr std::size_t kLongestInput = std::size_t{16} << 20;

using capture::name_of;

// A file's contents; "-" is standard input.
std::string read_file(const std::string &path);

// A buffer, from bytes or from pairs of hexadecimal digits with blanks or colons between pairs, also as xxd dumps them.
std::vector<uint8_t> read_buffer(const std::string &path, bool hexadecimal);

// No labels when the path is empty.
drix::inspect::Labels read_labels(const std::string &path);

const drix::describe::Type &find_type(const std::string &name);

}  // namespace quopa
