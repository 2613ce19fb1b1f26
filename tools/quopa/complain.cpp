#include "tools/quopa/complain.h"

#include <iostream>

#include "describe/printable.h"

namespace quopa {

void complain(const std::string &what) {
  std::cout.flush();
  std::cerr << "quopa: " << drix::describe::printable(what) << '\n';
}

}  // namespace quopa
