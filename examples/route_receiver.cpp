// Receives a stream of routes, checks it and prints it as a table, see route_record.h. Ends with the stream, or with
// SIGINT or SIGTERM; succeeds only when the stream arrived whole and unchanged. With --account it may be killed and
// started again, at an endpoint that keeps what it has not handled and may bring again what it has. With --keep holds a
// live table instead, see docs/live-table.md.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>

#include "fib6Sync.h"
#include "live_receiver.h"
#include "process.h"
#include "receiver.h"
#include "route_record.h"
#include "route_statistics.h"

namespace {

// What is known of a stream, in the order of the file that keeps it.
struct Account {
  uint64_t received = 0;   // routes, each once
  uint64_t announced = 0;  // at the end
  routes::StreamCheck check;
};
static_assert(std::is_trivially_copyable_v<Account>);

// Keeps an account for the process that is started after this one was killed.
class AccountFile {
 public:
  explicit AccountFile(const std::string &path) : file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
    if (file_ < 0) throw std::system_error(errno, std::generic_category(), path);
  }
  AccountFile(const AccountFile &) = delete;
  AccountFile &operator=(const AccountFile &) = delete;
  ~AccountFile() { close(file_); }

  void restore(Account &account) const {
    Account kept;
    if (pread(file_, &kept, sizeof kept, 0) == sizeof kept) account = kept;
  }
  // In one piece: a process is not killed in the middle of a call that takes so little.
  void keep(const Account &account) const {
    if (pwrite(file_, &account, sizeof account, 0) != sizeof account) {
      throw std::system_error(errno, std::generic_category(), "cannot keep the account");
    }
  }

 private:
  const int file_;
};

// The subscriber: checks every message, and prints the routes of the first pass.
class RouteStream {
 public:
  // Goes on with the account in the file, unless that is null.
  RouteStream(Receiver &receiver, bool print, const AccountFile *file)
      : receiver_(receiver), print_(print), file_(file) {
    if (file_ != nullptr) file_->restore(account_);
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
    std::printf("received %s\n", format_rate(account_.received, "routes", seconds_).c_str());
    receiver_.conclude(account_.check.account(), file_ != nullptr);
    if (account_.received != account_.announced)
      throw std::runtime_error("the sender sent another number of routes than it announced");
  }

 private:
  template <class Message>
  void subscribe(uint32_t id) {
    const auto subscriber = [](void *context, uint32_t, const void *record, uint32_t) {
      auto &stream = *static_cast<RouteStream *>(context);
      const auto &message = *static_cast<const Message *>(record);
      if (!stream.start_) stream.start_ = Clock::now();
      const bool is_new = message.f0.f1 > stream.account_.check.account().last();
      stream.account_.check.take(message);
      if (is_new) stream.take(message);
      if (stream.file_ != nullptr) stream.file_->keep(stream.account_);
    };
    receiver_.subscribe(id, subscriber, this);
  }

  void take(const fib6Sync_ipv6FwdUpdateMsg &message) {
    if (message.f0.f0 != routes::kRoute) return;
    progress_.report(++account_.received);
    const auto &route = message.f1;
    if (!print_ || route.f6 != 0) return;
    std::puts(routes::format_route(route, interfaces_[route.f0]).c_str());
    statistics_.take(route, interfaces_[route.f0]);
  }

  void take(const fib6Sync_svcCtxMsg &message) {
    if (message.f0.f0 == routes::kInterface) {
      interfaces_[message.f1[0]] = routes::interface_name(message);
    } else if (message.f0.f0 == routes::kEnd) {
      account_.announced = message.f1[0];
      account_.check.end();
      receiver_.stop();
    }
  }

  Receiver &receiver_;
  bool print_;
  const AccountFile *file_;
  Account account_;
  routes::Statistics statistics_;
  std::map<uint32_t, std::string> interfaces_;  // names by number
  Progress progress_{"route_receiver", "routes"};
  std::optional<Clock::time_point> start_;
  double seconds_ = 0;  // from the first message to the end
};

struct Options {
  std::string endpoint = routes::kDefaultEndpoint;
  bool quiet = false;
  bool keep = false;
  live::ReceiverOptions live = {};
  std::string account;
  uint32_t timeout_s = 5;

  void add_to(CommandLine &line) {
    line.option("--endpoint", endpoint, "where to receive");
    line.flag("--quiet", quiet, "print the summary only");
    line.flag("--keep", keep, "hold the table of a sender that follows the kernel's; SIGUSR1 has it shown");
    live.add_to(line);
    line.option("--account", account, "a file to go on from when it was killed; what comes again is no fault then");
    line.option("--timeout", timeout_s, "seconds to wait for a server", 0, 86400);
  }
};

void run(const Options &options) {
  check(fib6_sync_recv_init(), "cannot register the decoders");
  if (options.keep) return live::keep(options.endpoint, options.quiet, options.live);
  Receiver receiver(options.endpoint, options.timeout_s);
  std::optional<AccountFile> file;
  if (!options.account.empty()) file.emplace(options.account);
  RouteStream stream(receiver, !options.quiet, file ? &*file : nullptr);
  stream.run();
  stream.conclude();
}

}  // namespace

int main(int argc, char **argv) {
  return run_process("route_receiver", "Receives IPv6 routes over the bus, checks them and prints them.", argc, argv,
                     run);
}
