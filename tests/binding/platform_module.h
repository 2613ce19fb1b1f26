// What a loaded platform module remembers of the calls that it got.
#pragma once

#include <stdint.h>

typedef struct LogRecord {
  uint32_t calls;
  const void *module;
  uint32_t level;
  uint32_t code;
  const char *file;
  uint32_t line;
  const char *function;
  const char *format;
  char text[128];
} LogRecord;

typedef struct MemoryRecord {
  uint32_t size;
  const void *block;
  uint32_t memory_module;
  const char *function;
} MemoryRecord;
