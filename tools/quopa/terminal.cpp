#include "tools/quopa/terminal.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>

namespace quopa {
namespace {

constexpr std::chrono::seconds kSilence{1};
constexpr std::chrono::milliseconds kRefresh{200};

Progress *current = nullptr;

}  // namespace

bool wants_color(const std::string &when) {
  if (when != "auto") return when == "always";
  const char *no_color = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0');
}

Progress::Progress() : has_terminal_(isatty(STDERR_FILENO) == 1), next_(Clock::now() + kSilence) { current = this; }

Progress::~Progress() {
  erase();
  current = nullptr;
}

void Progress::show() {
  const auto now = Clock::now();
  if (now < next_) return;
  erase();
  std::cout.flush();  // in the order in which it was told, where both are one terminal
  std::cerr << packets_ << " packets" << std::flush;
  is_shown_ = true;
  next_ = now + kRefresh;
}

void Progress::erase() {
  if (is_shown_) std::cerr << "\r\033[K" << std::flush;
  is_shown_ = false;
}

void Progress::clear() {
  if (current == nullptr || !current->has_terminal_) return;
  current->erase();
  current->next_ = Clock::now() + kSilence;
}

}  // namespace quopa
