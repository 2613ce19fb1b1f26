// The sending end of the example processes.
#pragma once

#include <cstdint>
#include <string>

#include "drix_message.hpp"
#include "kelvodrix.h"
#include "process.h"

struct ChannelOptions {
  std::string endpoint;
  uint32_t timeout_s = 5;

  void add_to(CommandLine &line) {
    line.option("--endpoint", endpoint, "where the receiver is");
    line.option("--timeout", timeout_s, "seconds to wait for the receiver", 0, 86400);
  }
};

class Channel {
 public:
  explicit Channel(const ChannelOptions &options) : endpoint_(options.endpoint), timeout_ms_(options.timeout_s * 1000) {
    kelvodrix_options bus_options = KELVODRIX_OPTIONS_DEFAULT;
    bus_options.send_timeout_ms = timeout_ms_;
    check(kelvodrix_open(endpoint_.c_str(), &bus_options, &handle_), "cannot open " + endpoint_);
  }
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;
  ~Channel() { kelvodrix_close(handle_, 0, nullptr); }

  // Sends a record, or a range of them in one call of the bus.
  void send(const auto &records) {
    send_by([&](uint32_t handle) { return drix::send(handle, records); });
  }

  // Sends by an operation on the handle.
  void send_by(const auto &operation) {
    const int32_t status = operation(handle_);
    if (status == KELVODRIX_OK) return;
    uint64_t undelivered = 0;
    kelvodrix_flush(handle_, 0, &undelivered);
    check(status, "cannot send, with " + std::to_string(undelivered) + " messages undelivered, to " + endpoint_);
  }

  // Has a stream forget what was sent there before this channel was opened.
  void checkpoint() { check(kelvodrix_checkpoint(handle_), "no checkpoint in " + endpoint_); }

  // Returns once everything is acknowledged.
  void flush() {
    uint64_t undelivered = 0;
    const int32_t status = kelvodrix_flush(handle_, timeout_ms_, &undelivered);
    check(status, std::to_string(undelivered) + " messages undelivered to " + endpoint_);
  }

 private:
  std::string endpoint_;
  uint32_t timeout_ms_;
  uint32_t handle_ = 0;
};
