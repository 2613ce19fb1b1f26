// The receiving end of the example processes.
#pragma once

#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "drix_services.h"
#include "kelvodrix.h"
#include "process.h"
#include "stream_account.h"

// Stops the receiver's loop at SIGINT and SIGTERM for as long as it lives.
class StopOnSignal {
 public:
  explicit StopOnSignal(kelvodrix_receiver *receiver) {
    receiver_ = receiver;
    install([](int) { kelvodrix_stop(receiver_); });
  }
  StopOnSignal(const StopOnSignal &) = delete;
  StopOnSignal &operator=(const StopOnSignal &) = delete;
  ~StopOnSignal() { install(SIG_DFL); }

 private:
  static void install(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
  }

  static inline kelvodrix_receiver *receiver_ = nullptr;
};

// A line on standard error every other second: how much of a long stream has arrived.
class Progress {
 public:
  Progress(const char *name, const char *what) : name_(name), what_(what) {}

  void report(uint64_t received) {
    if (received % 4096 != 0 || Clock::now() < next_) return;
    next_ = Clock::now() + kInterval;
    std::fprintf(stderr, "%s: %" PRIu64 " %s so far\n", name_, received, what_);
  }

 private:
  static constexpr std::chrono::seconds kInterval{2};

  const char *name_;
  const char *what_;
  Clock::time_point next_ = Clock::now() + kInterval;
};

// The one receiver of a process.
class Receiver {
 public:
  // Waits so long for a server that does not answer, or not for the stream: there may be an election.
  explicit Receiver(const std::string &endpoint, uint32_t timeout_s = 0)
      : receiver_(create(endpoint, timeout_s)), stop_on_signal_(receiver_.get()) {}

  void subscribe(uint32_t id, kelvodrix_subscriber subscriber, void *context) {
    check(kelvodrix_subscribe(receiver_.get(), id, subscriber, context), "cannot subscribe");
  }

  // Returns when it is stopped, also by a signal.
  void run() { check(kelvodrix_run(receiver_.get()), "cannot receive"); }
  void stop() { kelvodrix_stop(receiver_.get()); }

  // Prints what went wrong with the stream that was received; throws when anything did. Messages that came again may be
  // no fault.
  void conclude(const StreamAccount &stream, bool may_repeat = false) const {
    kelvodrix_counters bus;
    kelvodrix_get_counters(receiver_.get(), &bus);
    drix_services_counters services;
    drix_services_get_counters(&services);
    const uint64_t refused = bus.messages - bus.delivered + bus.malformed;

    std::printf("%" PRIu64 " missing, %" PRIu64 " repeated, %" PRIu64 " differing, %" PRIu64
                " logged by the decoder, %" PRIu64 " not delivered\n",
                stream.missing(), stream.repeated(), stream.differing(), services.log_lines, refused);
    if (!stream.ended()) throw std::runtime_error("stopped before the end of the stream");
    if (!stream.clean(may_repeat) || services.log_lines != 0 || refused != 0) {
      throw std::runtime_error("the stream did not arrive whole and unchanged");
    }
    if (services.blocks_live != 0) {
      throw std::runtime_error(std::to_string(services.blocks_live) + " blocks of records were not released");
    }
  }

 private:
  struct Destroy {
    void operator()(kelvodrix_receiver *receiver) const { kelvodrix_receiver_destroy(receiver); }
  };

  static kelvodrix_receiver *create(const std::string &endpoint, uint32_t timeout_s) {
    const Clock::time_point start = Clock::now();
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
      kelvodrix_receiver *receiver = nullptr;
      const int32_t status = kelvodrix_receiver_create(endpoint.c_str(), &receiver);
      if (status == KELVODRIX_OK) return receiver;
      const bool may_change = status == KELVODRIX_ERR_SERVER || status == KELVODRIX_ERR_STREAM;
      if (!may_change || seconds_since(start) >= timeout_s) check(status, "cannot receive at " + endpoint);
    }
  }

  std::unique_ptr<kelvodrix_receiver, Destroy> receiver_;
  StopOnSignal stop_on_signal_;
};
