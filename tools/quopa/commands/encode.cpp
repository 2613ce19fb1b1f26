// quopa encode: JSON as a buffer.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "inspect/digits.h"
#include "inspect/json.h"
#include "tools/quopa/command.h"
#include "tools/quopa/input.h"
#include "tools/quopa/null_bus.h"

namespace quopa {
namespace {

using drix::describe::Type;
using drix::inspect::Record;

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

std::vector<uint8_t> build_fixed(const Type &type, const Record &record) {
  if (!type.is_fixed()) {
    throw BadUsage(type.name() + " has variable length, so there is no fixed layout for it; leave out --layout fixed");
  }
  if (type.library.sendsingle(0, record.data(), 1, 0) != 0) throw BadInput("out of memory");
  return last_sent();
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

void write_output(const EncodeOptions &options, const std::vector<uint8_t> &buffer) {
  if (options.output.empty() || options.output == "-") return write_to(std::cout, buffer, options.hex);
  std::ofstream file(options.output, std::ios::binary);
  if (file) write_to(file, buffer, options.hex);
  if (!file.flush()) throw BadInput(options.output + ": " + std::strerror(errno));
}

}  // namespace

int encode(const EncodeOptions &options) {
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

}  // namespace quopa
