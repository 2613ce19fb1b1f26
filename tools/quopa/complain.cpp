#include "tools/quopa/complain.h"

#include <iostream>

namespace quopa {

void complain(const std::string &line) {
  std::cout.flush();
  std::cerr << "quopa: " << line << '\n';
}

}  // namespace quopa
