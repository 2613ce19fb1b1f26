// The messages of processes that are being recorded, as they come.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capture/message.h"

namespace capture {

// Follows the recorder's rings, which no reader of whole captures can: files that fill up, give way to the next one and
// are written anew. Starts with the oldest that is there. Goes by what the processor here can read, for the recorder
// runs here too.
class Follower {
 public:
  // Folders, with all rings that are or will be in them, and files, each for its ring. Throws BadCapture.
  explicit Follower(const std::vector<std::string> &paths);
  Follower(const Follower &) = delete;
  Follower &operator=(const Follower &) = delete;
  ~Follower();

  // The next message, notes too, valid until the next call; null when there is none now. Of several rings the earliest
  // that is there. Throws BadCapture.
  const Message *next();

 private:
  class Ring;
  struct Place {
    std::string folder;
    std::string ring;  // empty: all
  };

  void discover();

  std::vector<Place> places_;
  std::vector<std::unique_ptr<Ring>> rings_;
  Ring *taken_ = nullptr;  // whose message was given last
  std::chrono::steady_clock::time_point next_discovery_;
};

}  // namespace capture
