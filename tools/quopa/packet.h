// What "quopa decode" and "quopa annotate" show: a buffer, or what a packet of a capture carries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inspect/json.h"

namespace quopa {

struct Subject {
  std::string name;  // for what is told of it
  const drix::describe::Type *type;
  std::vector<uint8_t> bytes;
  drix::inspect::JsonStyle style;
};

// Of a type and a file with a buffer; CAPTURE#NUMBER stands for a packet, in the file's place, or in the type's where
// the capture knows the type. Throws BadInput and BadUsage.
Subject read_subject(const std::string &type, const std::string &file, bool hexadecimal, const std::string &labels,
                     bool ipv6);

}  // namespace quopa
