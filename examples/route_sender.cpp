// Reads the kernel's IPv6 routes and sends them over the bus, see route_record.h. Succeeds only when the receiver has
// acknowledged every message. With --follow sends a live table instead, see docs/live-table.md.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "channel.h"
#include "fib6Sync.h"
#include "live_sender.h"
#include "process.h"
#include "route_record.h"

namespace {

struct Options {
  ChannelOptions channel = {.endpoint = routes::kDefaultEndpoint};
  std::string file = "/proc/net/ipv6_route";
  uint32_t batch = 256;
  uint32_t repeat = 1;
  bool follow = false;
  live::SenderOptions live = {};

  void add_to(CommandLine &line) {
    channel.add_to(line);
    line.option("--file", file, "a file in the format of /proc/net/ipv6_route");
    line.option("--batch", batch, "routes in one send call", 1, 65536);
    line.option("--repeat", repeat, "how often to send the whole table", 1);
    line.flag("--follow", follow, "send this host's routes and each change of them to all who ask");
    live.add_to(line);
  }
};

struct Table {
  std::vector<std::string> interfaces;  // interface n of a route stands at n - 1
  std::vector<fib6Sync_ipv6Fwd> routes;
};

uint32_t interface_number(Table &table, std::string_view name) {
  const auto known = std::find(table.interfaces.begin(), table.interfaces.end(), name);
  const auto number = static_cast<uint32_t>(known - table.interfaces.begin()) + 1;
  if (known == table.interfaces.end()) table.interfaces.emplace_back(name);
  return number;
}

Table read_table(const std::string &path) {
  std::ifstream file(path);
  if (!file) throw std::system_error(errno, std::generic_category(), path);
  Table table;
  std::size_t line_number = 0;
  for (std::string line; std::getline(file, line);) {
    ++line_number;
    try {
      if (file.eof()) throw std::invalid_argument("the line is cut off");
      std::string_view interface;
      fib6Sync_ipv6Fwd route = routes::parse_route(line, interface);
      route.f0 = interface_number(table, interface);
      table.routes.push_back(route);
    } catch (const std::invalid_argument &reason) {
      throw std::runtime_error(path + ":" + std::to_string(line_number) + ": " + reason.what());
    }
  }
  if (file.bad()) throw std::runtime_error(path + ": cannot be read");
  if (table.routes.empty()) throw std::runtime_error(path + ": holds no routes");
  return table;
}

void send_routes(Channel &channel, const Table &table, const Options &options) {
  routes::StreamStamp stamp;
  const auto send_context = [&](fib6Sync_svcCtxMsg message) {
    stamp.apply(message);
    channel.send(message);
  };

  uint32_t number = 0;
  for (const std::string &name : table.interfaces) send_context(routes::make_interface(++number, name));

  const uint64_t total = uint64_t{options.repeat} * table.routes.size();
  std::vector<fib6Sync_ipv6FwdUpdateMsg> batch;
  uint64_t sent = 0;
  for (uint32_t pass = 0; pass < options.repeat; ++pass) {
    for (const fib6Sync_ipv6Fwd &route : table.routes) {
      fib6Sync_ipv6FwdUpdateMsg &message = batch.emplace_back();
      message.f0.f0 = routes::kRoute;
      message.f1 = route;
      message.f1.f6 = static_cast<uint16_t>(std::min(pass, 0xFFFFu));
      stamp.apply(message);
      if (batch.size() == options.batch || sent + batch.size() == total) {
        channel.send(batch);
        sent += batch.size();
        batch.clear();
      }
    }
  }
  send_context(routes::make_end(static_cast<uint32_t>(total)));
  channel.checkpoint();
  channel.flush();
}

void run(const Options &options) {
  if (options.follow) return live::follow(options.live);
  const Table table = read_table(options.file);
  const uint64_t total = uint64_t{options.repeat} * table.routes.size();
  if (total + table.interfaces.size() + 1 > UINT32_MAX) {
    throw std::runtime_error("--repeat: a stream has at most 4294967295 messages");
  }
  Channel channel(options.channel);
  const Clock::time_point start = Clock::now();
  send_routes(channel, table, options);
  const double seconds = seconds_since(start);
  std::printf("sent %s, all acknowledged\n", format_rate(total, "routes", seconds).c_str());
}

}  // namespace

int main(int argc, char **argv) {
  return run_process("route_sender", "Sends the kernel's IPv6 routes over the bus.", argc, argv, run);
}
