// Loads a program as a library, with what it needs for itself alone, and runs it: late LIBRARY ARGUMENT...
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char **argv) {
  void *const library = argc > 1 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
  auto *const program = library != nullptr ? reinterpret_cast<int (*)(int, char **)>(dlsym(library, "main")) : nullptr;
  if (program != nullptr) return program(argc - 1, argv + 1);
  std::fprintf(stderr, "late: %s\n", dlerror());
  return 1;
}
