// quopa encode: JSON as a buffer.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "inspect/hex.h"
#include "inspect/json.h"
#include "tools/quopa/command.h"
#include "tools/quopa/input.h"
#include "tools/quopa/null_bus.h"

namespace quopa {
namespace {

using drix::describe::Type;
using drix::inspect::Event;
using drix::inspect::Record;

struct Options {
  std::string type;
  std::string file = "-";
  std::string labels;
  std::string layout;
  std::string output;
  bool hex = false;
};

std::vector<uint8_t> build_compact(const Type &type, const Record &record) {
  std::vector<uint8_t> buffer(std::size_t{1} << 12);
  while (true) {
    auto length = static_cast<uint32_t>(buffer.size());
    if (type.library.pack(record.data(), buffer.data(), &length) == 0) {
      buffer.resize(length);
      return buffer;
    }
    if (buffer.size() >= kLongestInput) throw BadInput("the buffer would be longer than 16 MiB");
    buffer.resize(2 * buffer.size());
  }
}

// Bytes that the layout leaves unwritten, which a process sends as they come.
class BlankGaps : public drix::inspect::Sink {
 public:
  explicit BlankGaps(uint8_t *buffer) : buffer_(buffer) {}

  void take(const drix::inspect::Place &, std::span<const Event> events) override {
    for (const Event &event : events) {
      if (event.thing == drix::inspect::Thing::unwritten) std::memset(buffer_ + event.at, 0, event.size);
    }
  }

 private:
  uint8_t *buffer_;
};

std::vector<uint8_t> build_fixed(const Type &type, const Record &record) {
  if (!type.is_fixed()) {
    throw BadUsage(type.name() + " has variable length, so there is no fixed layout for it; leave out --layout fixed");
  }
  if (type.library.sendsingle(0, record.data(), 1, 0) != 0) throw BadInput("out of memory");
  std::vector<uint8_t> buffer = last_sent();
  BlankGaps blank(buffer.data());
  drix::inspect::walk(type, buffer.data(), static_cast<uint32_t>(buffer.size()), &blank);
  return buffer;
}

void write_to(std::ostream &out, const std::vector<uint8_t> &buffer, bool hexadecimal) {
  if (hexadecimal) {
    std::string text;
    drix::inspect::append_hex(text, buffer);
    out << text << '\n';
  } else {
    out.write(reinterpret_cast<const char *>(buffer.data()), static_cast<std::streamsize>(buffer.size()));
  }
}

void write_output(const Options &options, const std::vector<uint8_t> &buffer) {
  if (options.output.empty() || options.output == "-") return write_to(std::cout, buffer, options.hex);
  std::ofstream file(options.output, std::ios::binary);
  if (file) write_to(file, buffer, options.hex);
  if (!file.flush()) throw BadInput(options.output + ": " + std::strerror(errno));
}

int encode(const Options &options) {
  const Type &type = find_type(options.type);
  const bool to_stdout = options.output.empty() || options.output == "-";
  if (to_stdout && !options.hex && isatty(STDOUT_FILENO) == 1) {
    throw BadUsage("a buffer is nothing for a terminal; use -o FILE, --hex or a pipe");
  }
  const drix::inspect::Labels labels = read_labels(options.labels);
  const std::string text = read_file(options.file);
  try {
    const Record record = drix::inspect::read_json(text, type, labels);
    const bool fixed = options.layout.empty() ? type.is_fixed() : options.layout == "fixed";
    write_output(options, fixed ? build_fixed(type, record) : build_compact(type, record));
  } catch (const drix::inspect::JsonError &error) {
    throw BadInput(name_of(options.file) + ": " + error.what());
  }
  return kGood;
}

}  // namespace

void add_encode(CLI::App &app, Run &run) {
  const auto options = std::make_shared<Options>();
  CLI::App *command = app.add_subcommand("encode", "Make a buffer of a JSON object");
  command->add_option("TYPE", options->type, "The message type, like fib6Sync.ipv6Fwd, or its ID, like 0x1234ABCD")
      ->required();
  command->add_option("FILE", options->file, "The JSON object; - or nothing: standard input");
  command->add_option("--layout", options->layout, "Nothing: the one in which the library sends the type")
      ->type_name("compact|fixed")
      ->check(CLI::IsMember({"compact", "fixed"}).description(""));
  command->add_option("-o,--output", options->output, "Where to write; - or nothing: standard output")
      ->type_name("FILE");
  command->add_flag("--hex", options->hex, "Write hexadecimal text");
  command->add_option("--labels", options->labels, "A file that names members and their values")->type_name("FILE");
  command->footer(
      "Takes what \"quopa decode\" prints, with whatever options. Members that are not given are zero or empty.\n\n"
      "Examples:\n"
      "  echo '{\"f0\":1,\"f1\":2}' | quopa encode fib6Sync.tlv --hex\n"
      "  quopa decode fib6Sync.tlv a.bin | jq -c '.f0 = 7' | quopa encode fib6Sync.tlv -o b.bin");
  command->callback([=, &run] { run = [=] { return encode(*options); }; });
}

}  // namespace quopa
