// Text of anybody, for a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace drix::describe {

// The text with what moves a cursor, is obeyed or hides other characters as \x and the bytes in hexadecimal: control
// characters, line ends too, marks of no width, overrides of the writing direction, and bytes that are no UTF-8. It is
// cut where it is longer than a path and what is to tell of it.
std::string printable(std::string_view text);

// The text, or its begin and three full stops: for messages about what somebody has written.
std::string shortened(std::string_view text, std::size_t most = 40);

// The same in quotation marks.
std::string quoted(std::string_view text);

}  // namespace drix::describe
