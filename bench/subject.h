// What is measured: the message types with their operations, and the fixed layout's builder.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "drix_message.hpp"

namespace bench {

// Writes the fixed layout of a type that has one; not exported by the shared object.
template <class R>
void build_fixed(uint8_t *buffer, const R *record);

// Ends the program: figures of an operation that does not work are worth nothing.
inline void require(bool condition, const std::string &what) {
  if (!condition) throw std::runtime_error(what);
}

}  // namespace bench
