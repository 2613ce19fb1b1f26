#include "live_receiver.h"

#include <sys/time.h>

#include <array>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <random>
#include <stdexcept>

#include "drix_message.hpp"
#include "kelvodrix.h"
#include "kernel_routes.h"
#include "live_mirror.h"
#include "process.h"
#include "receiver.h"
#include "route_record.h"

namespace live {
namespace {

// Has the receiver's loop left at SIGINT, SIGTERM and SIGUSR1, and in regular intervals by SIGALRM, so that one thread
// does everything.
class Interruptions {
 public:
  explicit Interruptions(Receiver &receiver) {
    receiver_ = &receiver;
    struct sigaction action = {};
    action.sa_flags = SA_RESTART;
    action.sa_handler = [](int signal) {
      pending_[static_cast<std::size_t>(signal)] = 1;
      receiver_->stop();
    };
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGALRM}) sigaction(signal, &action, nullptr);
    set_timer({.tv_sec = 0, .tv_usec = 100'000});
  }
  Interruptions(const Interruptions &) = delete;
  Interruptions &operator=(const Interruptions &) = delete;
  ~Interruptions() {
    set_timer({});
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGALRM}) std::signal(signal, SIG_IGN);
  }

  static bool take(int signal) {
    volatile std::sig_atomic_t &pending = pending_[static_cast<std::size_t>(signal)];
    if (pending == 0) return false;
    pending = 0;
    return true;
  }

 private:
  static void set_timer(timeval interval) {
    const itimerval timer = {interval, interval};
    setitimer(ITIMER_REAL, &timer, nullptr);
  }

  static inline Receiver *receiver_ = nullptr;
  static inline std::array<volatile std::sig_atomic_t, 32> pending_ = {};
};

// Where the sender takes requests.
class Requests {
 public:
  Requests(const std::string &endpoint, const std::string &own) : own_(own) {
    const kelvodrix_options options = {.send_timeout_ms = 50, .window_frames = 16, .window_bytes = 1u << 16};
    check(kelvodrix_open(endpoint.c_str(), &options, &handle_), "cannot send to " + endpoint);
  }
  Requests(const Requests &) = delete;
  Requests &operator=(const Requests &) = delete;
  ~Requests() { kelvodrix_close(handle_, 0, nullptr); }

  // Without a sender the request is lost. It is made again for as long as nothing comes.
  void ask(uint32_t stream) {
    const fib6_cfg_query_comm_param request = {.f0 = stream,
                                               .f1 = kVersion,
                                               .f2Len = static_cast<uint32_t>(own_.size()),
                                               .f2 = reinterpret_cast<uint8_t *>(own_.data())};
    drix::send(handle_, request);
  }

 private:
  std::string own_;
  uint32_t handle_ = 0;
};

class Keeper final : private LiveTable::Observer {
 public:
  Keeper(const std::string &endpoint, bool quiet, const ReceiverOptions &options)
      : quiet_(quiet), options_(options), receiver_(endpoint), requests_(options.requests, endpoint) {
    subscribe<fib6Sync_ipv6FwdUpdateMsg>();
    subscribe<fib6Sync_ipv6FwdDelMsg>();
    subscribe<fib6Sync_nhp6GroupUpdateMsg>();
    subscribe<fib6Sync_nhp6GroupNodeUpdateMsg>();
    subscribe<fib6Sync_nhp6GroupDelMsg>();
    subscribe<fib6Sync_svcCtxMsg>();
  }

  void run() {
    const Interruptions interruptions(receiver_);
    for (bool ended = false; !ended;) {
      if (const auto stream = mirror_.ask()) requests_.ask(*stream);
      receiver_.run();
      if (interruptions.take(SIGALRM)) mirror_.tick();
      report_whole();
      ended = interruptions.take(SIGINT) || interruptions.take(SIGTERM);
      if (interruptions.take(SIGUSR1) || ended) show();
      std::fflush(stdout);
    }
    if (!mirror_.whole()) throw std::runtime_error("the table is not whole");
    if (differs_) throw std::runtime_error("the table is not the kernel's");
  }

 private:
  template <class Message>
  void subscribe() {
    const auto subscriber = [](void *self, uint32_t, const void *record, uint32_t) {
      static_cast<Keeper *>(self)->take(*static_cast<const Message *>(record));
    };
    receiver_.subscribe(drix::message<Message>::id, subscriber, this);
  }

  template <class Message>
  void take(const Message &message) {
    mirror_.take(message);
    if (mirror_.wants_table()) receiver_.stop();
    report_whole();
    constexpr bool is_mark = requires { message.f1[7]; };
    if (is_mark && options_.status && mirror_.whole() && mirror_.summary() != printed_) print_status();
  }

  void on_route(const RouteKey &key) override {
    if (!options_.changes) return;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    std::printf("%lld.%06ld %c %s\n", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000,
                mirror_.table().find(key) != nullptr ? '+' : '-', format_prefix(key).c_str());
  }
  void on_unused_group(uint32_t) noexcept override {}

  void report_whole() {
    if (mirror_.whole() == was_whole_) return;
    was_whole_ = !was_whole_;
    if (was_whole_) {
      std::printf("whole after %.3f s\n", seconds_since(not_whole_since_));
      std::fflush(stdout);
    } else {
      not_whole_since_ = Clock::now();
    }
  }

  void print_status() {
    printed_ = mirror_.summary();
    const Mirror::Counters &counters = mirror_.counters();
    std::printf("%s whole=%d messages=%" PRIu64 " tables=%" PRIu64 " gaps=%" PRIu64 " differences=%" PRIu64
                " silences=%" PRIu64 " repeated=%" PRIu64 " foreign=%" PRIu64 "\n",
                format_summary(printed_).c_str(), mirror_.whole(), counters.messages, counters.tables, counters.gaps,
                counters.differences, counters.silences, counters.repeated, counters.foreign);
    std::fflush(stdout);
  }

  void show() {
    if (mirror_.whole() && !quiet_) {
      std::puts(routes::table_heading().c_str());
      for (const auto &[key, route] : mirror_.table().routes()) {
        for (const NextHop &hop : route.next_hops()) {
          std::puts(format_route(key, hop, mirror_.interface_name(hop.interface)).c_str());
        }
      }
      std::puts(routes::table_key().c_str());
    }
    print_status();
    if (options_.check && mirror_.whole()) compare();
  }

  void compare() {
    LiveTable kernels;
    open_kernel_routes(
        kernels, [](uint32_t, const std::string &) {}, kEventRoom)
        ->read_all();
    uint64_t equal = 0, missing = 0, different = 0;
    for (const auto &[key, route] : kernels.routes()) {
      const LiveTable::Route *const held = mirror_.table().find(key);
      const bool is_equal = held != nullptr && held->next_hops() == route.next_hops();
      ++(held == nullptr ? missing : is_equal ? equal : different);
      if (!is_equal) report(held == nullptr ? "missing" : "different", key);
    }
    const uint64_t surplus = mirror_.table().size() - equal - different;
    for (const auto &[key, route] : mirror_.table().routes()) {
      if (kernels.find(key) == nullptr) report("surplus", key);
    }
    std::printf("compared with the kernel's: %" PRIu64 " equal, %" PRIu64 " missing, %" PRIu64 " different, %" PRIu64
                " surplus\n",
                equal, missing, different, surplus);
    differs_ = missing + different + surplus != 0;
  }

  static void report(const char *what, const RouteKey &key) {
    std::printf("%s: %s table %u metric %u\n", what, format_prefix(key).c_str(), key.table, key.metric);
  }

  static constexpr uint32_t kEventRoom = 1024;  // KiB

  bool quiet_;
  const ReceiverOptions &options_;
  Receiver receiver_;
  Requests requests_;
  Mirror mirror_{std::random_device()(), this};
  bool was_whole_ = false;
  Clock::time_point not_whole_since_ = Clock::now();
  Summary printed_;
  bool differs_ = false;
};

}  // namespace

void keep(const std::string &endpoint, bool quiet, const ReceiverOptions &options) {
  Keeper(endpoint, quiet, options).run();
}

}  // namespace live
