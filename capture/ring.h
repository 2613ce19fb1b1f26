// One ring of the recorder, followed while it is written to.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "capture/blocks.h"
#include "capture/message.h"

namespace capture {

// Goes from file to file, which no reader of whole captures can: they fill up, give way to the next one, and are
// written anew or deleted. Takes a file's messages in their order, and waits for one that is yet being written or
// answered. What cannot be shown is told: files that are gone, places that stay empty, damage.
class Ring {
 public:
  // Begins with the file that has the number.
  Ring(std::string folder, std::string name, uint64_t number, const Complaint &complain)
      : folder_(std::move(folder)), name_(std::move(name)), complain_(complain), number_(number), latest_(number) {}
  Ring(const Ring &) = delete;
  Ring &operator=(const Ring &) = delete;

  bool is(const std::string &folder, const std::string &name) const { return folder == folder_ && name == name_; }

  // That there is a file with this number.
  void expect(uint64_t number) { latest_ = std::max(latest_, number); }

  // The message that comes next, notes too; null when it is not there yet. Valid, and the same, until it is taken.
  const Message *message();
  void take();

 private:
  using Clock = std::chrono::steady_clock;

  // For a place where nothing is yet.
  struct Wait {
    uint64_t number;
    uint64_t at;
    Clock::time_point far_look;                 // when to look far behind it again
    std::optional<Clock::time_point> deadline;  // when not to wait any longer; none while nothing comes behind it
    bool has_more;                              // in this file
  };

  std::string path_of(uint64_t number) const;
  bool advance();
  bool open_from(uint64_t number, uint64_t lost);
  bool skip(const std::string &why);
  bool take_packet();
  bool pass_filler();
  bool is_full();
  bool find_more_before(uint64_t end);

  std::string folder_;
  std::string name_;
  const Complaint &complain_;
  uint64_t number_;  // of the file that is being read, or that comes next
  uint64_t latest_;  // of those that there were
  std::optional<Blocks> blocks_;
  bool is_behind_schema_ = false;
  Wait wait_ = {};
  Origin origin_;
  Message message_ = {};
  bool has_message_ = false;
};

}  // namespace capture
