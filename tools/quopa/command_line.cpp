// What can be told on the command line. The parser is a large header, so no command includes it.
#include "tools/quopa/command_line.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "tools/quopa/command.h"

namespace quopa {
namespace {

void add_types(CLI::App &app, Run &run) {
  const auto options = std::make_shared<TypesOptions>();
  CLI::App *command = app.add_subcommand("types", "List message types, or compare them with those of another version");
  CLI::Option *which = command->add_option("TYPE", options->which, "Only this package or this type");
  CLI::Option *json = command->add_flag("--json", options->json, "One JSON object a line");
  CLI::Option *schema = command->add_flag("--schema", options->schema, "The text to keep for a later --check");
  json->excludes(schema);
  command->add_option("--check", options->old_schema, "Tell what changed since this schema was written")
      ->type_name("OLD.schema")
      ->excludes(which, json, schema);
  command->footer(
      "Sizes and places that depend on the width of pointers are given for 32 and 64 bits.\n"
      "--check ends with status 1 when processes of both versions misunderstand each other, or when programs\n"
      "that were built with the old headers must not use the new library.\n\n"
      "Examples:\n"
      "  quopa types fib6_cfg\n"
      "  quopa types fib6Sync.ipv6Fwd\n"
      "  quopa types --schema > today.schema\n"
      "  quopa types --check yesterday.schema");
  command->callback([=, &run] { run = [=] { return types(*options); }; });
}

void add_decode(CLI::App &app, Run &run) {
  const auto options = std::make_shared<DecodeOptions>();
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

void add_encode(CLI::App &app, Run &run) {
  const auto options = std::make_shared<EncodeOptions>();
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

void add_annotate(CLI::App &app, Run &run) {
  const auto options = std::make_shared<AnnotateOptions>();
  CLI::App *command = app.add_subcommand("annotate", "Show a buffer byte by byte with the meaning of each");
  command->add_option("TYPE", options->type, "The message type, like fib6Sync.ipv6Fwd, or its ID, like 0x1234ABCD")
      ->required();
  command->add_option("FILE", options->file, "The buffer; - or nothing: standard input");
  command->add_flag("--hex", options->hex, "The buffer is hexadecimal text, with blanks between pairs of digits");
  command->add_flag("--ipv6", options->ipv6, "Show every u32[4] as an IPv6 address");
  command->add_flag("--full", options->full, "Show long arrays whole");
  command->add_option("--labels", options->labels, "A file that names members and their values")->type_name("FILE");
  command->add_option("--color", options->color, "auto: on a terminal, unless NO_COLOR is set")
      ->type_name("auto|always|never")
      ->check(CLI::IsMember({"auto", "always", "never"}).description(""));
  command->footer(
      "Positions are decimal, bytes hexadecimal. In a buffer that the decoder would reject, the word that it\n"
      "does not take is marked; standard error has position and reason, and the status is 1.\n\n"
      "Examples:\n"
      "  quopa annotate fib6Sync.ipv6FwdUpdateMsg message.bin\n"
      "  echo '{\"f0\":1}' | quopa encode fib6Sync.tlv | quopa annotate fib6Sync.tlv");
  command->callback([=, &run] { run = [=] { return annotate(*options); }; });
}

void add_complete(CLI::App &app, Run &run) {
  CLI::App *command = app.add_subcommand("__complete")->group("")->prefix_command();
  command->set_help_flag();
  command->callback([=, &app, &run] { run = [=, &app] { return complete(app, command->remaining()); }; });
}

}  // namespace

Run parse_command_line(int argc, char **argv) {
  const auto app = std::make_shared<CLI::App>("Shows, checks and makes the messages of libdrix_fib6.", "quopa");
  Run run;
  app->set_version_flag("--version", "quopa " QUOPA_VERSION);
  app->require_subcommand(1);
  app->footer(
      "Status: 0 good; 1 bad input, a rejected buffer or differences; 2 wrong usage.\n"
      "\"quopa COMMAND --help\" explains a command, with examples.");
  add_types(*app, run);
  add_decode(*app, run);
  add_encode(*app, run);
  add_annotate(*app, run);
  add_complete(*app, run);
  try {
    app->parse(argc, argv);
  } catch (const CLI::Success &wanted) {
    return [status = app->exit(wanted)] { return status; };
  } catch (const CLI::ParseError &error) {
    throw BadUsage(error.what());
  }
  return [app, run] { return run(); };
}

}  // namespace quopa
