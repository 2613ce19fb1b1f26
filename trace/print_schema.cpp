// Prints the schema as the lines of a string literal, for the recorder to be built with.
#include <iostream>

#include "describe/schema.h"

int main() {
  std::cout << '"';
  for (const char c : drix::describe::to_text(drix::describe::current_schema())) {
    if (c == '\n') {
      std::cout << "\\n\"\n\"";
    } else {
      std::cout << c;
    }
  }
  std::cout << "\"\n";
}
