// The messages of processes that are being recorded, as they come.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "capture/message.h"
#include "capture/ring.h"

namespace capture {

// Starts with the oldest file of each ring. Goes by what the processor here can read, for the recorder runs here too.
class Follower {
 public:
  // Folders, with all rings that are or will be in them, and files, each for its ring. Throws BadCapture.
  Follower(const std::vector<std::string> &paths, Complaint complain, Patience patience = {});
  Follower(const Follower &) = delete;
  Follower &operator=(const Follower &) = delete;

  // The next message, notes too, valid until the next call; null when there is none now. Of several rings the earliest
  // that is there.
  const Message *next();

 private:
  struct Watched {
    std::string folder;
    std::string ring;  // empty: all
  };

  void discover();
  Ring &ring(const std::string &folder, const std::string &name, uint64_t first);

  Complaint complain_;
  Patience patience_;
  std::vector<Watched> watched_;
  std::vector<std::unique_ptr<Ring>> rings_;
  Ring *taken_ = nullptr;  // whose message was given last
  std::chrono::steady_clock::time_point next_discovery_;
};

}  // namespace capture
