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

// A capture's path for a line of text: of a ring's file only FOLDER/PROCESS.NUMBER. And the path of what is named so; of
// everything else, and where no such file is there, the path itself. Throws BadCapture where two files have that name.
std::string short_path(const std::string &path);
std::string long_path(const std::string &path);

template <class Visit>
void for_each_ring_file(const std::string &folder, Visit visit) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (const auto file = ring_file(entry->path().filename())) visit(*file);
  }
}

}  // namespace capture
