#include "tools/quopa/complain.h"

#include <iostream>

#include "describe/printable.h"
#include "tools/quopa/terminal.h"

namespace quopa {

void complain(const std::string &what) {
  Progress::clear();
  std::cout.flush();
  std::cerr << "quopa: " << drix::describe::printable(what) << '\n';
}

}  // namespace quopa
