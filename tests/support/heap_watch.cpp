#include "heap_watch.h"

#include <cerrno>

namespace {

bool watching = false;
heap_watch::Counts counts;
std::size_t until_failure = heap_watch::kNever;

}  // namespace

namespace heap_watch {

void start(std::size_t failing) {
  counts = {};
  until_failure = failing;
  watching = true;
}

Counts stop() {
  watching = false;
  return counts;
}

}  // namespace heap_watch

#ifndef DRIX_SANITIZED

// The program's own malloc and free come before the C library's, for the shared object too.
extern "C" {

void *__libc_malloc(std::size_t size);
void __libc_free(void *block);

__attribute__((visibility("default"))) void *malloc(std::size_t size) {
  if (watching) {
    ++counts.allocations;
    if (until_failure != heap_watch::kNever && until_failure-- == 0) {
      errno = ENOMEM;
      return nullptr;
    }
  }
  return __libc_malloc(size);
}

__attribute__((visibility("default"))) void free(void *block) {
  if (watching && block != nullptr) ++counts.frees;
  __libc_free(block);
}
}

#endif
