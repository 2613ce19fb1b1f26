// Receives a stream of routes, checks it and prints it as a table, see route_record.h. Ends with the stream, or with
// SIGINT or SIGTERM; succeeds only when the stream arrived whole and unchanged.
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "drix_services.h"
#include "fib6Sync.h"
#include "kelvodrix.h"
#include "process.h"
#include "route_record.h"

namespace {

using Clock = std::chrono::steady_clock;

void check(int32_t status, const std::string &what) {
  if (status != KELVODRIX_OK) throw std::runtime_error(what + ": " + kelvodrix_strerror(status));
}

struct DestroyReceiver {
  void operator()(kelvodrix_receiver *receiver) const { kelvodrix_receiver_destroy(receiver); }
};
using Receiver = std::unique_ptr<kelvodrix_receiver, DestroyReceiver>;

Receiver make_receiver(const std::string &endpoint) {
  kelvodrix_receiver *receiver = nullptr;
  check(kelvodrix_receiver_create(endpoint.c_str(), &receiver), "cannot receive at " + endpoint);
  return Receiver(receiver);
}

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

// The subscriber: checks every message, and prints the routes of the first pass.
class RouteStream {
 public:
  RouteStream(kelvodrix_receiver *receiver, bool print) : receiver_(receiver), print_(print) {
    check(subscribe<fib6Sync_ipv6FwdUpdateMsg>(routes::kRouteMessageId), "cannot subscribe to routes");
    check(subscribe<fib6Sync_svcCtxMsg>(routes::kContextMessageId), "cannot subscribe to contexts");
  }
  RouteStream(const RouteStream &) = delete;
  RouteStream &operator=(const RouteStream &) = delete;

  // Returns at the end of the stream or when the receiver is stopped.
  void run() {
    if (print_) std::puts(routes::kTableHeading);
    check(kelvodrix_run(receiver_), "cannot receive");
    if (start_) seconds_ = std::chrono::duration<double>(Clock::now() - *start_).count();
  }

  // Prints the summary; throws when the stream did not arrive whole and unchanged.
  void conclude() const {
    kelvodrix_counters bus;
    kelvodrix_get_counters(receiver_, &bus);
    drix_services_counters services;
    drix_services_get_counters(&services);
    const uint64_t refused = bus.messages - bus.delivered + bus.malformed + bus.stale;

    std::printf("received %" PRIu64 " routes in %.3f s: %.0f routes/s\n", received_, seconds_,
                seconds_ > 0 ? static_cast<double>(received_) / seconds_ : 0);
    std::printf("%" PRIu64 " missing, %" PRIu64 " repeated, %" PRIu64 " differing, %" PRIu64
                " rejected by the decoder, %" PRIu64 " refused by the bus\n",
                check_.missing(), check_.repeated(), check_.differing(), services.log_lines, refused);
    if (!ended_) throw std::runtime_error("stopped before the end of the stream");
    if (!check_.clean() || received_ != announced_ || services.log_lines != 0 || refused != 0) {
      throw std::runtime_error("the stream did not arrive whole and unchanged");
    }
  }

 private:
  template <class Message>
  int32_t subscribe(uint32_t id) {
    const auto subscriber = [](void *context, uint32_t, const void *record, uint32_t) {
      auto &stream = *static_cast<RouteStream *>(context);
      const auto &message = *static_cast<const Message *>(record);
      if (!stream.start_) stream.start_ = Clock::now();
      stream.check_.take(message);
      stream.take(message);
    };
    return kelvodrix_subscribe(receiver_, id, subscriber, this);
  }

  void take(const fib6Sync_ipv6FwdUpdateMsg &message) {
    if (message.f0.f0 != routes::kRoute) return;
    ++received_;
    const auto &route = message.f1;
    if (print_ && route.f6 == 0) std::puts(routes::format_route(route, interfaces_[route.f0]).c_str());
  }

  void take(const fib6Sync_svcCtxMsg &message) {
    if (message.f0.f0 == routes::kInterface) {
      interfaces_[message.f1[0]] = routes::interface_name(message);
    } else if (message.f0.f0 == routes::kEnd) {
      announced_ = message.f1[0];
      ended_ = true;
      kelvodrix_stop(receiver_);
    }
  }

  kelvodrix_receiver *receiver_;
  bool print_;
  routes::StreamCheck check_;
  std::map<uint32_t, std::string> interfaces_;  // names by number
  uint64_t received_ = 0;
  uint64_t announced_ = 0;
  bool ended_ = false;
  std::optional<Clock::time_point> start_;
  double seconds_ = 0;  // from the first message to the end
};

}  // namespace

int main(int argc, char **argv) {
  std::string endpoint = routes::kDefaultEndpoint;
  bool quiet = false;
  CLI::App app("Receives IPv6 routes over the bus, checks them and prints them.", "route_receiver");
  app.option_defaults()->always_capture_default();
  app.add_option("--endpoint", endpoint, "where to receive");
  app.add_flag("--quiet", quiet, "print the summary only");
  return run_process(app, argc, argv, [&] {
    check(fib6_sync_recv_init(), "cannot register the decoders");
    const Receiver receiver = make_receiver(endpoint);
    const StopOnSignal stop_on_signal(receiver.get());
    RouteStream stream(receiver.get(), !quiet);
    stream.run();
    stream.conclude();
  });
}
