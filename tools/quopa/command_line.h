// The command line of quopa.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace quopa {

using Run = std::function<int()>;

// What the command line asks for; what only has to be printed, like help, is printed then. Throws BadUsage.
Run parse_command_line(int argc, char **argv);

// Prints what the last word may become, one a line.
int complete(const CLI::App &app, std::vector<std::string> words);

}  // namespace quopa
