// Holds the table that a live sender sends, through all that may happen to either.
#pragma once

#include <string>

#include "command_line.h"
#include "live_record.h"

namespace live {

struct ReceiverOptions {
  std::string requests = kDefaultRequests;
  bool check = false;
  bool status = false;
  bool changes = false;

  void add_to(CommandLine &line) {
    line.option("--requests", requests, "with --keep: where the sender takes requests");
    line.flag("--check", check, "with --keep: compare with this host's own routes, route by route, when it is shown");
    line.flag("--status", status,
              "with --keep: print a line on each state in which the table was equal to the sender's");
    line.flag("--changes", changes, "with --keep: print each change and when it came");
  }
};

// Returns at SIGINT and SIGTERM; SIGUSR1 has the table shown, if it is whole. Throws when it is not at the end, or
// differs from the kernel's.
void keep(const std::string &endpoint, bool quiet, const ReceiverOptions &options);

}  // namespace live
