// Receives a stream of routes, checks it and prints it as a table, see route_record.h. Ends with the stream, or with
// SIGINT or SIGTERM; succeeds only when the stream arrived whole and unchanged. With --keep holds a live table instead,
// see docs/live-table.md.
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include "fib6Sync.h"
#include "live_receiver.h"
#include "process.h"
#include "receiver.h"
#include "route_record.h"
#include "route_statistics.h"

namespace {

// The subscriber: checks every message, and prints the routes of the first pass.
class RouteStream {
 public:
  RouteStream(Receiver &receiver, bool print) : receiver_(receiver), print_(print) {
    subscribe<fib6Sync_ipv6FwdUpdateMsg>(routes::kRouteMessageId);
    subscribe<fib6Sync_svcCtxMsg>(routes::kContextMessageId);
  }
  RouteStream(const RouteStream &) = delete;
  RouteStream &operator=(const RouteStream &) = delete;

  // Returns at the end of the stream or when the receiver is stopped.
  void run() {
    if (print_) std::puts(routes::table_heading().c_str());
    receiver_.run();
    if (print_) std::printf("%s\n\n%s\n", routes::table_key().c_str(), statistics_.summary().c_str());
    if (start_) seconds_ = seconds_since(*start_);
  }

  // Prints the summary; throws when the stream did not arrive whole and unchanged.
  void conclude() const {
    std::printf("received %s\n", format_rate(received_, "routes", seconds_).c_str());
    receiver_.conclude(check_.account());
    if (received_ != announced_) throw std::runtime_error("the sender sent another number of routes than it announced");
  }

 private:
  template <class Message>
  void subscribe(uint32_t id) {
    const auto subscriber = [](void *context, uint32_t, const void *record, uint32_t) {
      auto &stream = *static_cast<RouteStream *>(context);
      const auto &message = *static_cast<const Message *>(record);
      if (!stream.start_) stream.start_ = Clock::now();
      stream.check_.take(message);
      stream.take(message);
    };
    receiver_.subscribe(id, subscriber, this);
  }

  void take(const fib6Sync_ipv6FwdUpdateMsg &message) {
    if (message.f0.f0 != routes::kRoute) return;
    progress_.report(++received_);
    const auto &route = message.f1;
    if (!print_ || route.f6 != 0) return;
    std::puts(routes::format_route(route, interfaces_[route.f0]).c_str());
    statistics_.take(route, interfaces_[route.f0]);
  }

  void take(const fib6Sync_svcCtxMsg &message) {
    if (message.f0.f0 == routes::kInterface) {
      interfaces_[message.f1[0]] = routes::interface_name(message);
    } else if (message.f0.f0 == routes::kEnd) {
      announced_ = message.f1[0];
      check_.end();
      receiver_.stop();
    }
  }

  Receiver &receiver_;
  bool print_;
  routes::StreamCheck check_;
  routes::Statistics statistics_;
  std::map<uint32_t, std::string> interfaces_;  // names by number
  uint64_t received_ = 0;
  Progress progress_{"route_receiver", "routes"};
  uint64_t announced_ = 0;
  std::optional<Clock::time_point> start_;
  double seconds_ = 0;  // from the first message to the end
};

struct Options {
  std::string endpoint = routes::kDefaultEndpoint;
  bool quiet = false;
  bool keep = false;
  live::ReceiverOptions live = {};

  void add_to(CommandLine &line) {
    line.option("--endpoint", endpoint, "where to receive");
    line.flag("--quiet", quiet, "print the summary only");
    line.flag("--keep", keep, "hold the table of a sender that follows the kernel's; SIGUSR1 has it shown");
    live.add_to(line);
  }
};

void run(const Options &options) {
  check(fib6_sync_recv_init(), "cannot register the decoders");
  if (options.keep) return live::keep(options.endpoint, options.quiet, options.live);
  Receiver receiver(options.endpoint);
  RouteStream stream(receiver, !options.quiet);
  stream.run();
  stream.conclude();
}

}  // namespace

int main(int argc, char **argv) {
  return run_process("route_receiver", "Receives IPv6 routes over the bus, checks them and prints them.", argc, argv,
                     run);
}
