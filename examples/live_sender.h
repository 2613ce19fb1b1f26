// Sends the kernel's IPv6 routes, and each of their changes, to all who ask for them.
#pragma once

#include <cstdint>
#include <string>

#include "command_line.h"
#include "live_record.h"

namespace live {

struct SenderOptions {
  std::string requests = kDefaultRequests;
  uint32_t buffer = 64 << 10;
  bool status = false;

  void add_to(CommandLine &line) {
    line.option("--requests", requests, "with --follow: where receivers ask for the table");
    line.option("--buffer", buffer, "with --follow: KiB of the kernel's events to have room for", 1, 1 << 20);
    line.flag("--status", status, "with --follow: print a line on each state of the table that receivers are told of");
  }
};

// Returns at SIGINT and SIGTERM; SIGUSR1 has the table's state printed.
void follow(const SenderOptions &options);

}  // namespace live
