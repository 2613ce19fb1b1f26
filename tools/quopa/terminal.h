// What only a terminal gets: colours, and how far a command is.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace quopa {

// Whether standard output gets colours: always, never, or auto.
bool wants_color(const std::string &when);

// Tells on a terminal how much was read, after a second in which nothing was told, in a line that goes again.
class Progress {
 public:
  Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;
  ~Progress();

  void step() {
    ++packets_;
    if (has_terminal_) show();
  }

  // Before something else is told, by whatever command there is.
  static void clear();

 private:
  using Clock = std::chrono::steady_clock;

  void show();
  void erase();

  bool has_terminal_;
  bool is_shown_ = false;
  uint64_t packets_ = 0;
  Clock::time_point next_;
};

}  // namespace quopa
