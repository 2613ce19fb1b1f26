// quopa replay: sends what a trace holds over the stand-in bus.
#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <iostream>
#include <map>

#include "capture/timeline.h"
#include "drix_bus.h"
#include "platform/kelvodrix/kelvodrix.h"
#include "tools/quopa/bus_library.h"
#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/tap.h"
#include "tools/quopa/terminal.h"

namespace quopa {
namespace {

using capture::Message;

constexpr uint32_t kSendTimeout = 5000;  // milliseconds for a receiver to come or to make room
constexpr uint32_t kFlushTimeout = 10000;

class Bus {
 public:
  Bus(const std::string &library, const std::string &endpoint) : library_(library), endpoint_(endpoint) {
    library_.find(open_, "kelvodrix_open");
    library_.find(close_, "kelvodrix_close");
    library_.find(flush_, "kelvodrix_flush");
    library_.find(text_of_, "kelvodrix_strerror");
    library_.find(send_, "DRIX_SendMsg");
    kelvodrix_options options = KELVODRIX_OPTIONS_DEFAULT;
    options.send_timeout_ms = kSendTimeout;
    const int32_t status = open_(endpoint.c_str(), &options, &handle_);
    if (status != KELVODRIX_OK) throw BadInput(endpoint + ": " + text_of_(status));
  }
  Bus(const Bus &) = delete;
  Bus &operator=(const Bus &) = delete;
  ~Bus() { close_(handle_, 0, nullptr); }

  void send(std::vector<DrixSendDescriptor> &call) {
    const int32_t status = send_(handle_, call.data(), static_cast<uint32_t>(call.size()));
    if (status != KELVODRIX_OK) fail(status);
    sent_ += call.size();
  }

  void flush() {
    uint64_t undelivered = 0;
    const int32_t status = flush_(handle_, kFlushTimeout, &undelivered);
    if (status != KELVODRIX_OK) fail(status);
  }

 private:
  [[noreturn]] void fail(int32_t status) {
    uint64_t undelivered = 0;
    flush_(handle_, 0, &undelivered);
    throw BadInput(endpoint_ + ": " + text_of_(status) + "; " + std::to_string(sent_) + " messages were sent, " +
                   std::to_string(undelivered) + " of them undelivered");
  }

  BusLibrary library_;
  std::string endpoint_;
  decltype(&kelvodrix_open) open_;
  decltype(&kelvodrix_close) close_;
  decltype(&kelvodrix_flush) flush_;
  decltype(&kelvodrix_strerror) text_of_;
  decltype(&DRIX_SendMsg) send_;
  uint32_t handle_ = 0;
  uint64_t sent_ = 0;
};

// Keeps the distances in time, shortened by a factor; none for infinity.
class Pace {
 public:
  explicit Pace(double factor) : factor_(factor) {}

  void wait_for(uint64_t time) {
    if (std::isinf(factor_)) return;
    if (first_ == 0) {
      first_ = time;
      start_ = std::chrono::steady_clock::now();
    }
    const double distance = time > first_ ? static_cast<double>(time - first_) / factor_ : 0;
    const double left =
        distance - std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start_).count();
    if (left <= 0) return;
    constexpr double kSecond = 1e9;
    std::timespec pause = {static_cast<std::time_t>(left / kSecond), static_cast<long>(std::fmod(left, kSecond))};
    ::nanosleep(&pause, nullptr);
  }

 private:
  double factor_;
  uint64_t first_ = 0;
  std::chrono::steady_clock::time_point start_;
};

double speed_of(const std::string &text) {
  if (text == "max") return INFINITY;
  double factor = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), factor);
  if (error != std::errc() || end != text.data() + text.size() || !(factor > 0) || std::isinf(factor)) {
    throw BadUsage("--speed is a factor above 0, or max");
  }
  return factor;
}

// One call of a process, as far as it was seen.
struct Call {
  uint64_t time = 0;
  uint32_t handle = 0;
  uint32_t next_index = 0;
  uint32_t count = 0;
  std::vector<std::pair<uint32_t, std::vector<uint8_t>>> messages;  // ID and bytes

  bool takes(const Message &message) const {
    return message.time == time && message.handle == handle && message.count == count && message.index >= next_index;
  }
};

class Replay {
 public:
  explicit Replay(const ReplayOptions &options)
      : kind_(options.received ? TRACE_RECEIVED : TRACE_SENT),
        pace_(speed_of(options.speed)),
        bus_(options.bus, options.endpoint) {}

  int run(capture::Timeline &timeline) {
    {
      Progress progress;
      while (const Message *message = timeline.next()) {
        progress.step();
        if (message->kind == kind_) take(*message);
      }
      while (!open_.empty()) send(open_.begin());
      bus_.flush();
    }
    std::cout << "sent " << messages_ << " messages in " << calls_ << " calls, all acknowledged\n";
    if (failed_ > 0) std::cout << failed_ << " left out: their own send had failed\n";
    if (cut_ > 0) std::cout << cut_ << " left out: cut by the recorder\n";
    return cut_ == 0 && timeline.is_whole() ? kGood : kBad;
  }

 private:
  using Thread = std::pair<uint32_t, uint32_t>;  // process and thread: each makes one call at a time
  using Open = std::map<Thread, Call>;

  void take(const Message &message) {
    if (message.is_cut()) {
      ++cut_;
      return;
    }
    if (message.is_sent() && message.has_failed() && message.status != TRACE_NO_ANSWER) {
      ++failed_;
      return;
    }
    const Thread thread = {message.origin->process, message.thread};
    const auto known = open_.find(thread);
    if (known != open_.end() && !known->second.takes(message)) send(known);
    Call &call = open_[thread];
    if (call.messages.empty()) {
      call.time = message.time;
      call.handle = message.handle;
      call.count = message.count;
    }
    call.next_index = message.index + 1;
    call.messages.emplace_back(message.id, std::vector<uint8_t>(message.payload.begin(), message.payload.end()));
    if (message.index + 1 == message.count) send(open_.find(thread));
  }

  void send(Open::iterator open) {
    Call &call = open->second;
    std::vector<DrixSendDescriptor> descriptors;
    for (const auto &[id, bytes] : call.messages) {
      descriptors.push_back({reinterpret_cast<uintptr_t>(bytes.data()), id, static_cast<uint32_t>(bytes.size())});
    }
    pace_.wait_for(call.time);
    bus_.send(descriptors);
    messages_ += descriptors.size();
    ++calls_;
    open_.erase(open);
  }

  TraceKind kind_;
  Pace pace_;
  Bus bus_;
  Open open_;
  uint64_t messages_ = 0;
  uint64_t calls_ = 0;
  uint64_t failed_ = 0;
  uint64_t cut_ = 0;
};

}  // namespace

int replay(const ReplayOptions &options) {
  SelectionOptions selection;
  selection.tap.bus = options.bus;
  has_endpoint(options.paths, selection.tap);
  capture::Timeline timeline(options.paths, complain, opener(selection));
  return Replay(options).run(timeline);
}

}  // namespace quopa
