#include "trace/settings.h"

#include <fnmatch.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "trace/complaint.h"
#include "trace/schema_text.h"

namespace trace {
namespace {

constexpr uint64_t kDefaultBytes = uint64_t{64} << 20;
constexpr uint64_t kLeastBytes = uint64_t{1} << 20;
constexpr uint64_t kMostBytes = uint64_t{8} << 30;

Settings read;

// The message IDs that QUOPA_TRACE_TYPES chooses, each in the first free entry from where its last bits say: they are
// hashes of names, never 0.
bool all_selected = true;
uint32_t selected_ids[4096];
constexpr uint32_t kEntries = sizeof selected_ids / sizeof selected_ids[0];

// Where the ID is, or would be.
uint32_t &entry_of(uint32_t id) {
  uint32_t entry = id % kEntries;
  while (selected_ids[entry] != 0 && selected_ids[entry] != id) entry = (entry + 1) % kEntries;
  return selected_ids[entry];
}

void read_folder(const char *folder) {
  const size_t length = std::strlen(folder);
  size_t before = 0;
  if (folder[0] != '/') {  // the process may go elsewhere
    if (getcwd(read.folder, sizeof read.folder) == nullptr) {
      read.folder[0] = '\0';
      return complain("QUOPA_TRACE_DIR", errno, "this process is not traced");
    }
    before = std::strlen(read.folder);
    read.folder[before++] = '/';
  }
  if (before + length >= sizeof read.folder) {
    read.folder[0] = '\0';
    return complain("QUOPA_TRACE_DIR", ENAMETOOLONG, "this process is not traced");
  }
  std::memcpy(read.folder + before, folder, length + 1);
}

// 0: no size.
uint64_t parse_size(const char *text) {
  if (*text < '0' || *text > '9') return 0;
  char *end = nullptr;
  errno = 0;
  const unsigned long long number = std::strtoull(text, &end, 10);
  unsigned shift = 0;
  switch (*end) {
    case 'k':
    case 'K':
      shift = 10;
      break;
    case 'm':
    case 'M':
      shift = 20;
      break;
    case 'g':
    case 'G':
      shift = 30;
      break;
    default:
      break;
  }
  if (shift != 0) ++end;
  if (errno != 0 || *end != '\0' || number > kMostBytes >> shift) return 0;
  return uint64_t{number} << shift;
}

void read_size(const char *text) {
  read.ring_bytes = parse_size(text);
  if (read.ring_bytes >= kLeastBytes && read.ring_bytes <= kMostBytes) return;
  read.ring_bytes = kDefaultBytes;
  char subject[128];
  std::snprintf(subject, sizeof subject, "QUOPA_TRACE_SIZE=%s is no size from 1M to 8G", text);
  complain(subject, 0, "the trace takes 64M");
}

// Adds the types whose names match. Returns whether any does.
bool select(const char *pattern) {
  bool any = false;
  for (const char *line = kSchemaNote; *line != '\0'; line = std::strchr(line, '\n') + 1) {
    char name[128];
    unsigned id = 0;
    if (std::sscanf(line, "%127[a-zA-Z0-9_.] 0x%X", name, &id) != 2 || fnmatch(pattern, name, 0) != 0) continue;
    any = true;
    entry_of(id) = id;
  }
  return any;
}

void read_types(const char *patterns) {
  all_selected = false;
  while (*patterns != '\0') {
    const size_t length = std::strcspn(patterns, ",");
    char pattern[128];
    const size_t kept = length < sizeof pattern ? length : sizeof pattern - 1;
    std::memcpy(pattern, patterns, kept);
    pattern[kept] = '\0';
    if (std::strcmp(pattern, "*") == 0) {
      all_selected = true;  // also what the schema does not know
    } else if (kept != 0 && !select(pattern)) {
      char subject[192];
      std::snprintf(subject, sizeof subject, "QUOPA_TRACE_TYPES: no type is called %s", pattern);
      complain(subject, 0, "it selects nothing");
    }
    patterns += length;
    if (*patterns == ',') ++patterns;
  }
}

void read_program() {
  size_t length = 0;
  for (const char *name = program_invocation_short_name; *name != '\0' && length < sizeof read.program - 1; ++name) {
    const bool plain = (*name >= 'a' && *name <= 'z') || (*name >= 'A' && *name <= 'Z') ||
                       (*name >= '0' && *name <= '9') || std::strchr("._-+", *name) != nullptr;
    read.program[length++] = plain ? *name : '_';
  }
}

}  // namespace

void read_settings() {
  const char *const folder = secure_getenv("QUOPA_TRACE_DIR");
  if (folder == nullptr || *folder == '\0') return;
  read_folder(folder);
  if (read.folder[0] == '\0') return;
  read_program();
  read.ring_bytes = kDefaultBytes;
  const char *const size = secure_getenv("QUOPA_TRACE_SIZE");
  if (size != nullptr && *size != '\0') read_size(size);
  const char *const types = secure_getenv("QUOPA_TRACE_TYPES");
  if (types != nullptr && *types != '\0') read_types(types);
}

const Settings &settings() { return read; }

bool is_selected(uint32_t id) { return all_selected || entry_of(id) != 0; }

}  // namespace trace
