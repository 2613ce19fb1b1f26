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

// How long what is not there yet is waited for before the next is shown without it.
struct Patience {
  std::chrono::nanoseconds message = std::chrono::seconds(2);           // under way, in the recorder or in the bus
  std::chrono::nanoseconds last_words = std::chrono::milliseconds(50);  // of threads in a file that is full
  std::chrono::nanoseconds discovery = std::chrono::milliseconds(200);  // between looks for files
};

// Goes from file to file, which no reader of whole captures can: they fill up, give way to the next one, and are
// written anew or deleted. Takes a file's messages in their order, and waits for one that is yet being written or
// answered. What cannot be shown is told: files that are gone, places that stay empty, damage.
class Ring {
 public:
  // Begins with the file that has the number.
  Ring(std::string folder, std::string name, uint64_t number, const Complaint &complain, Patience patience)
      : folder_(std::move(folder)),
        name_(std::move(name)),
        complain_(complain),
        patience_(patience),
        number_(number),
        latest_(number) {}
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
  bool is_under_way() const;

  std::string folder_;
  std::string name_;
  const Complaint &complain_;
  Patience patience_;
  uint64_t number_;  // of the file that is being read, or that comes next
  uint64_t latest_;  // of those that there were
  std::optional<Blocks> blocks_;
  uint64_t packets_ = 0;  // of the file that were taken
  bool is_behind_schema_ = false;
  Wait wait_ = {};
  Origin origin_;
  Message message_ = {};
  bool has_message_ = false;
};

}  // namespace capture
