// Bytes as hexadecimal text.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace drix::inspect {

// -1 for what is no hexadecimal digit.
constexpr int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

inline void append_hex(std::string &text, std::span<const uint8_t> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (const uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
}

}  // namespace drix::inspect
