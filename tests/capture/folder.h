// A folder that goes with the test.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

class Folder {
 public:
  Folder() : path_(::mkdtemp(("/tmp/capture_test.XXXXXX" + std::string()).data())) {}
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }

  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};
