// What the commands of quopa share: each adds itself to the command line, and is run when the line was understood.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>
#include <string>

namespace quopa {

// Exit statuses.
inline constexpr int kGood = 0;
inline constexpr int kBad = 1;    // bad input, a rejected buffer, or differences found
inline constexpr int kUsage = 2;  // the command line is wrong

using Run = std::function<int()>;

void add_types(CLI::App &app, Run &run);
void add_decode(CLI::App &app, Run &run);
void add_encode(CLI::App &app, Run &run);
void add_annotate(CLI::App &app, Run &run);
void add_complete(CLI::App &app, Run &run);

// One line for the user, behind "quopa: ".
struct BadInput : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct BadUsage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace quopa
