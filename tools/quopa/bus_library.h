// The stand-in bus, loaded at run time: quopa has a bus of its own inside that goes nowhere.
#pragma once

#include <dlfcn.h>

#include <string>

#include "tools/quopa/command.h"

namespace quopa {

class BusLibrary {
 public:
  // Throws BadInput, as the other.
  explicit BusLibrary(const std::string &path) : path_(path), loaded_(::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (loaded_ == nullptr) throw BadInput(std::string("no bus: ") + ::dlerror() + "; --bus names its library");
  }

  template <class F>
  void find(F &function, const char *name) const {
    function = reinterpret_cast<F>(::dlsym(loaded_, name));
    if (function == nullptr) throw BadInput(path_ + ": not the stand-in bus, and messages go onto no other");
  }

 private:
  std::string path_;
  void *loaded_;
};

}  // namespace quopa
