// The files in which the recorder writes in turn.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace capture {

struct RingFile {
  std::string ring;  // quopa-PROGRAM-PROCESS
  uint64_t number;   // from 0; what is missing before the least was written anew
};

// By a file's name; no value when it is no such file.
std::optional<RingFile> ring_file(const std::string &name);

template <class Visit>
void for_each_ring_file(const std::string &folder, Visit visit) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (const auto file = ring_file(entry->path().filename())) visit(*file);
  }
}

}  // namespace capture
