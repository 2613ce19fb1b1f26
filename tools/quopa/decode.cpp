// quopa decode: a buffer as JSON.
#include <iostream>
#include <memory>

#include "inspect/json.h"
#include "tools/quopa/command.h"
#include "tools/quopa/input.h"
#include "tools/quopa/verdict.h"

namespace quopa {
namespace {

struct Options {
  std::string type;
  std::string file = "-";
  std::string labels;
  bool hex = false;
  bool ipv6 = false;
};

int decode(const Options &options) {
  const drix::describe::Type &type = find_type(options.type);
  const drix::inspect::JsonStyle style = {read_labels(options.labels), options.ipv6};
  const std::vector<uint8_t> buffer = read_buffer(options.file, options.hex);
  drix::inspect::RecordBuilder builder(type, buffer.data());
  const drix::inspect::Verdict verdict =
      drix::inspect::walk(type, buffer.data(), static_cast<uint32_t>(buffer.size()), &builder);
  write_json(std::cout, type, builder.record().data(), style, verdict.accepted() ? nullptr : &verdict);
  return report(verdict, type, buffer, options.file);
}

}  // namespace

void add_decode(CLI::App &app, Run &run) {
  const auto options = std::make_shared<Options>();
  CLI::App *command = app.add_subcommand("decode", "Show a buffer as one line of JSON");
  command->add_option("TYPE", options->type, "The message type, like fib6Sync.ipv6Fwd, or its ID, like 0x1234ABCD")
      ->required();
  command->add_option("FILE", options->file, "The buffer; - or nothing: standard input");
  command->add_flag("--hex", options->hex, "The buffer is hexadecimal text, with blanks between pairs of digits");
  command->add_flag("--ipv6", options->ipv6, "Show every u32[4] as an IPv6 address");
  command->add_option("--labels", options->labels, "A file that names members and their values")->type_name("FILE");
  command->footer(
      "Of a buffer that the decoder would reject, shows what is decoded before; standard error then has\n"
      "the decoder's log line, if it writes one, and position and reason. The status is then 1.\n\n"
      "Examples:\n"
      "  quopa decode fib6Sync.ipv6FwdUpdateMsg message.bin | jq .f1.f3\n"
      "  echo 04000000... | quopa decode fib6Sync.tlv --hex\n"
      "  quopa decode fib6Sync.ipv6FwdUpdateMsg --labels routes.labels message.bin");
  command->callback([=, &run] { run = [=] { return decode(*options); }; });
}

}  // namespace quopa
