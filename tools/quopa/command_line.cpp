// What can be told on the command line. The parser is a large header, so no command includes it.
#include "tools/quopa/command_line.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "describe/suggestion.h"
#include "tools/quopa/command.h"
#include "tools/quopa/help.h"

namespace quopa {
namespace {

void add_types(CLI::App &app, Run &run) {
  const auto options = std::make_shared<TypesOptions>();
  CLI::App *command = app.add_subcommand("types", "List message types, or compare them with those of another version");
  CLI::Option *which = command->add_option("TYPE", options->which, "Only this package or this type");
  CLI::Option *json = command->add_flag("--json", options->json, "One JSON object a line");
  CLI::Option *schema = command->add_flag("--schema", options->schema, "The text to keep for a later --check");
  json->excludes(schema);
  command->add_option("--check", options->old_schema, "Report what changed since this schema was written")
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
  command->add_option("TYPE", options->type, "The message type, like fib6Sync.ipv6Fwd, its ID, or CAPTURE#NUMBER")
      ->required();
  command->add_option("FILE", options->file, "The buffer, or CAPTURE#NUMBER; - or nothing: standard input");
  command->add_flag("--hex", options->hex,
                    "The buffer is hexadecimal text: pairs of digits, or a dump like that of xxd");
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
      "  quopa decode fib6Sync.tlv a | jq -c '.f0 = 7' | quopa encode fib6Sync.tlv -o b");
  command->callback([=, &run] { run = [=] { return encode(*options); }; });
}

void add_color(CLI::App &command, std::string &color) {
  command.add_option("--color", color, "auto: on a terminal, unless NO_COLOR is set")
      ->type_name("auto|always|never")
      ->check(CLI::IsMember({"auto", "always", "never"}).description(""));
}

void add_annotate(CLI::App &app, Run &run) {
  const auto options = std::make_shared<AnnotateOptions>();
  CLI::App *command = app.add_subcommand("annotate", "Show a buffer byte by byte with the meaning of each");
  command->add_option("TYPE", options->type, "The message type, like fib6Sync.ipv6Fwd, its ID, or CAPTURE#NUMBER")
      ->required();
  command->add_option("FILE", options->file, "The buffer, or CAPTURE#NUMBER; - or nothing: standard input");
  command->add_flag("--hex", options->hex,
                    "The buffer is hexadecimal text: pairs of digits, or a dump like that of xxd");
  command->add_flag("--full", options->full, "Show long arrays whole, and all elements of vectors");
  command->add_option("--labels", options->labels, "A file that names members and their values")->type_name("FILE");
  add_color(*command, options->color);
  command->footer(
      "Positions are decimal, bytes hexadecimal. In a buffer that the decoder would reject, the word that it\n"
      "does not take is marked; standard error has position and reason, and the status is 1.\n\n"
      "Examples:\n"
      "  quopa annotate fib6Sync.ipv6FwdUpdateMsg message.bin\n"
      "  quopa annotate trace.pcapng#17\n"
      "  echo '{\"f0\":1}' | quopa encode fib6Sync.tlv | quopa annotate fib6Sync.tlv");
  command->callback([=, &run] { run = [=] { return annotate(*options); }; });
}

void add_dissector(CLI::App &app, Run &run) {
  const auto options = std::make_shared<DissectorOptions>();
  CLI::App *command = app.add_subcommand("dissector", "Print what Wireshark and tshark need to show traces");
  command->add_option("--labels", options->labels, "A file that names members and their values")->type_name("FILE");
  command->add_option("-o,--output", options->output, "Where to write; - or nothing: standard output")
      ->type_name("FILE");
  command->footer(
      "Members are called quopa.PACKAGE.MESSAGE.f<I> in display filters, whatever their labels.\n\n"
      "Examples:\n"
      "  quopa dissector -o ~/.local/lib/wireshark/plugins/quopa.lua\n"
      "  tshark -X lua_script:quopa.lua -r trace.pcapng \\\n"
      "    -Y 'quopa.fib6Sync.ipv6Fwd.f3 == 2001:db8::/32'\n"
      "  tshark -X lua_script:quopa.lua -r trace.pcapng -Y quopa.rejected");
  command->callback([=, &run] { run = [=] { return dissector(*options); }; });
}

void add_labels(CLI::App &command, std::string &labels) {
  command.add_option("--labels", labels, "A file that names members and their values")->type_name("FILE");
}

void add_bus(CLI::App &command, std::string &bus) {
  command.add_option("--bus", bus, "The stand-in bus's library, for endpoints; nothing: libkelvodrix.so")
      ->type_name("LIBRARY");
}

void add_conditions(CLI::App &command, SelectionOptions &options) {
  command.add_option("--type", options.types, "Only types that match, like 'fib6Sync.ipv6Fwd*'; repeated: any of them")
      ->type_name("GLOB")
      ->allow_extra_args(false);
  CLI::Option *sent = command.add_flag("--sent", options.sent, "Only what was sent");
  CLI::Option *received = command.add_flag("--received", options.received, "Only what was received");
  CLI::Option *rejected =
      command.add_flag("--rejected", options.rejected, "Only what a decoder rejects, silently or not");
  CLI::Option *failed =
      command.add_flag("--failed", options.failed, "Only what the bus did not take, or gave no answer to");
  sent->excludes(received);
  rejected->excludes(failed);
  command.add_option("--where", options.where, "Only records with this member; repeated: all of them. See below")
      ->type_name("TERM")
      ->allow_extra_args(false);
  command.add_flag("--any-element", options.any_element, "Each TERM on a vector may hold in another element of it");
  add_labels(command, options.labels);
}

void add_selection(CLI::App &command, SelectionOptions &options) {
  command
      .add_option("FILE", options.paths, "Captures, folders of captures, and endpoints at servers; - is standard input")
      ->required();
  add_conditions(command, options);
  command.add_option("--from", options.from, "Only from this time on, like 08:56:40.5 or +5s. See below")
      ->type_name("TIME");
  command.add_option("--to", options.to, "Only up to this time")->type_name("TIME");
  add_bus(command, options.tap.bus);
}

constexpr char kEndpoints[] =
    "An endpoint is nats://HOST:PORT/NAME for what is sent to a receiver, with * as the name for all of them, or\n"
    "nats-stream://HOST:PORT/TABLE for what a stream keeps; tls instead of nats where it is encrypted. The server\n"
    "leaves out types that --type does not name, and of a stream what was stored before --from. Nothing is\n"
    "acknowledged. Without an end, it ends when it is interrupted.\n\n";

constexpr char kTimes[] =
    "A TIME is a local one like 08:56:40.5 or 2025-11-25T08:56, +5s from the first message on, or in seconds or\n"
    "nanoseconds since 1970. --to includes what is shown with its digits.\n\n";

constexpr char kTerms[] =
    "A TERM is MEMBER=VALUE, or != < <= > >=. The member is a path like f1.f3, or labels. In arrays and vectors any\n"
    "element may fulfil it, and of several terms on one vector the same element all, unless --any-element is given.\n"
    "The value is a number or a label's word; of an u32[4] also an IPv6 address or a prefix, which stands for all\n"
    "addresses in it; of byte strings hexadecimal digits. Beside its members a message has .time, .program, which may\n"
    "be a pattern, .process, .thread, .handle, .destination, .packet, .size, and .status: ok, failed, unanswered or a\n"
    "number.\n\n";

void add_trace(CLI::App &app, Run &run) {
  const auto options = std::make_shared<TraceOptions>();
  CLI::App *command = app.add_subcommand("trace", "Show the messages of captures in the order of time");
  add_selection(*command, options->selection);
  command->add_flag("-f,--follow", options->selection.tap.follow, "Go on with what is recorded meanwhile");
  CLI::Option *json = command->add_flag("--json", options->json, "One JSON object a line");
  CLI::Option *bare = command->add_flag("--bare", options->bare, "Only the records, as \"quopa decode\" shows them");
  CLI::Option *bytes = command->add_flag("--bytes", options->bytes, "With --json: the message's bytes too");
  CLI::Option *date = command->add_flag("--date", options->date, "The date in every line");
  CLI::Option *delta = command->add_flag("--delta", options->delta, "The time since the line before");
  command->add_flag("--ipv6", options->ipv6, "In JSON, show every u32[4] as an IPv6 address");
  add_color(*command, options->color);
  command->add_option("--count", options->count, "Only so many messages")->type_name("N");
  CLI::Option *output =
      command->add_option("-w,--write", options->output, "Write them to a capture instead; - is standard output")
          ->type_name("OUT.pcapng");
  json->excludes(bare, output, date, delta);
  bare->excludes(output, date, delta);
  bytes->needs(json);
  command->footer(
      std::string(kTerms) + kTimes + kEndpoints +
      "-f takes the folders in which processes are recorded, files in them, or a stream, and ends when it is\n"
      "interrupted.\n\n"
      "Examples:\n"
      "  quopa trace /dev/shm/trace --where f1.f3=2001:db8::/32 --ipv6\n"
      "  quopa trace /dev/shm/trace -f --rejected\n"
      "  quopa trace nats://10.0.0.1:4222/card1 --type 'fib6Sync.ipv6Fwd*'\n"
      "  quopa trace old.pcapng --type 'fib6Sync.*' --json | jq .record.f1.f4");
  command->callback([=, &run] { run = [=] { return trace(*options); }; });
}

void add_stats(CLI::App &app, Run &run) {
  const auto options = std::make_shared<StatsOptions>();
  CLI::App *command = app.add_subcommand("stats", "Count the messages of captures");
  add_selection(*command, options->selection);
  command->add_flag("-f,--follow", options->selection.tap.follow, "Go on where a stream ends, until interrupted");
  command->add_option("--count", options->count, "Only so many messages")->type_name("N");
  command->add_flag("--json", options->json, "One JSON object a line");
  command->footer(std::string(kTerms) + kTimes + kEndpoints +
                  "Examples:\n"
                  "  quopa stats /dev/shm/trace\n"
                  "  quopa stats /dev/shm/trace --where f1.f3=2001:db8::/32");
  command->callback([=, &run] { run = [=] { return stats(*options); }; });
}

void add_compare(CLI::App &app, Run &run) {
  const auto options = std::make_shared<CompareOptions>();
  CLI::App *command = app.add_subcommand("compare", "Report what a receiver did not get of what was sent");
  command
      ->add_option("SENDER", options->sender,
                   "A capture, a folder of captures, or an endpoint, of which what was sent counts")
      ->required();
  command->add_option(
      "RECEIVER", options->receivers,
      "The same, of which what was received counts; nothing: SENDER. Several pass it on, each to the next");
  command->add_flag("--by-key", options->by_key, "Compare entries of tables, however messages put them together");
  command->add_flag("-f,--follow", options->tap.follow, "Go on where a stream ends, until interrupted");
  add_bus(*command, options->tap.bus);
  command->add_flag("--json", options->json, "One JSON object a line, at the end the sums");
  command->add_flag("--ipv6", options->ipv6, "In JSON, show every u32[4] as an IPv6 address");
  add_color(*command, options->color);
  add_labels(*command, options->labels);
  command->footer(
      "Messages are the same when ID and bytes are; of several the first that was sent is the first that came.\n"
      "Reports what was not received, received again, and received but not sent, and how long the others took.\n"
      "By key, what messages tell of an entry is the same when all members are, in whatever layout and batch; when\n"
      "only the key is, it was changed on the way. Of several receivers each hop is reported, through them too.\n"
      "Endpoints are those of \"quopa trace\"; what comes is compared when there is an end, or an interruption.\n"
      "The status is 1 when there is a difference.\n\n"
      "Examples:\n"
      "  quopa compare sender/ receiver/\n"
      "  quopa compare sender/ nats-stream://10.0.0.1:4222/routes\n"
      "  quopa compare card/ agent/ hardware/ --by-key\n"
      "  quopa compare /dev/shm/trace");
  command->callback([=, &run] { run = [=] { return compare(*options); }; });
}

// Tables are of messages, so what is chosen of those is chosen as for trace.
void add_told(CLI::App &command, SelectionOptions &options) {
  command.add_option("--type", options.types, "Only messages of types that match; repeated: any of them")
      ->type_name("GLOB")
      ->allow_extra_args(false);
  CLI::Option *sent = command.add_flag("--sent", options.sent, "Only what was sent");
  CLI::Option *received = command.add_flag("--received", options.received, "Only what was received");
  sent->excludes(received);
  add_labels(command, options.labels);
  add_bus(command, options.tap.bus);
}

void add_where_entry(CLI::App &command, SelectionOptions &options) {
  command.add_option("--where", options.where, "Only entries with this member, as for trace; repeated: all of them")
      ->type_name("TERM")
      ->allow_extra_args(false);
}

void add_style(CLI::App &command, bool &json, bool &ipv6, const char *json_text) {
  command.add_flag("--json", json, json_text);
  command.add_flag("--ipv6", ipv6, "In JSON, show every u32[4] as an IPv6 address");
}

constexpr char kTables[] =
    "Tables are those of the types that have keys, and those of which --labels tells (see quopa(1)).\n\n";

void add_table(CLI::App &app, Run &run) {
  const auto options = std::make_shared<TableOptions>();
  CLI::App *command = app.add_subcommand("table", "Show the tables that the messages of captures make");
  command->add_option("FILE", options->selection.paths, "Captures, and folders of captures; - is standard input")
      ->required();
  command->add_option("--at", options->at, "As it was then, like 08:56:40.5 or +5s; nothing: at the end")
      ->type_name("TIME");
  add_told(*command, options->selection);
  add_where_entry(*command, options->selection);
  add_style(*command, options->json, options->ipv6, "One JSON object an entry, at the end one a table");
  command->footer(
      std::string("An entry a line, with the packet in which it was changed last and when. Each process has a\n"
                  "table, of what it received; where nothing was received, of what it sent.\n") +
      kTables +
      "Examples:\n"
      "  quopa table /dev/shm/trace\n"
      "  quopa table trace.pcapng --at 03:14:07 --where f1.f3=2001:db8::/32");
  command->callback([=, &run] { run = [=] { return table(*options); }; });
}

void add_history(CLI::App &app, Run &run) {
  const auto options = std::make_shared<HistoryOptions>();
  CLI::App *command = app.add_subcommand("history", "Show all that happened to an entry of a table");
  command
      ->add_option("FILE", options->selection.paths, "Captures, and folders of captures; - is standard input; then KEY")
      ->required();
  add_told(*command, options->selection);
  add_style(*command, options->json, options->ipv6, "One JSON object a line");
  command->footer(
      std::string("An event a line: added, changed, deleted, or repeated without a change; by whom, and in which\n"
                  "packet. KEY, the last word, is what \"quopa table\" shows of the key, or a part of it: a prefix\n"
                  "like 2001:db8::/32, an address, or MEMBER=VALUE.\n") +
      kTables +
      "Examples:\n"
      "  quopa history /dev/shm/trace 2001:db8::/32\n"
      "  quopa history trace.pcapng 'f0=7 f1=2'");
  command->callback([=, &run] {
    std::vector<std::string> &words = options->selection.paths;
    if (words.size() < 2) throw CLI::RequiredError("KEY");
    options->key = words.back();
    words.pop_back();
    run = [=] { return history(*options); };
  });
}

void add_diff(CLI::App &app, Run &run) {
  const auto options = std::make_shared<DiffOptions>();
  CLI::App *command = app.add_subcommand("diff", "Report in what two tables differ");
  command->add_option("HERE", options->here, "A capture, or a folder of captures; behind it perhaps @TIME")->required();
  command->add_option("THERE", options->there,
                      "The same; nothing: what processes received in HERE, of what was sent in it");
  add_told(*command, options->selection);
  add_where_entry(*command, options->selection);
  add_style(*command, options->json, options->ipv6, "One JSON object a line, at the end the sums");
  command->footer(
      std::string("What counts is what was received, or what was sent where nothing was received. THERE may also be a\n"
                  "table of routes as route_receiver prints it, with --labels. The status is 1\n"
                  "when there is a difference.\n") +
      kTables +
      "Examples:\n"
      "  quopa diff sender/ receiver/\n"
      "  quopa diff trace.pcapng@03:14:07 trace.pcapng@03:14:08");
  command->callback([=, &run] { run = [=] { return diff(*options); }; });
}

void add_watch(CLI::App &app, Run &run) {
  const auto options = std::make_shared<WatchOptions>();
  CLI::App *command = app.add_subcommand("watch", "Keep what is recorded around the moment in which a rule hits");
  command->add_option("FOLDER", options->selection.paths, "Where processes are recorded, or files in it")->required();
  command->add_option("--on", options->rules, "A rule, see below; repeated: any of them")
      ->type_name("RULE")
      ->allow_extra_args(false)
      ->required();
  command->add_option("--keep", options->keep, "So much before the hit is kept; nothing: 5s")->type_name("DURATION");
  command->add_option("--after", options->after, "And so much behind it; nothing: 1s")->type_name("DURATION");
  command->add_option("-o,--output", options->folder, "The folder for the captures; nothing: this one")
      ->type_name("FILE");
  command->add_option("--then", options->command, "Run for each capture by sh, with its name as $1 and the rule as $2")
      ->type_name("COMMAND");
  command->add_option("--count", options->count, "End after so many captures")->type_name("N");
  add_conditions(*command, options->selection);
  command->footer(
      std::string(
          "A RULE is rejected, failed, changes=N for an entry of a table that is added, changed or deleted N times\n"
          "in a second, or changes=N/DURATION, late=DURATION for what was sent and not received so soon, or a\n"
          "TERM. Hits while a capture is written are in the same one. A DURATION is 50ms, 5s, 2m or the like.\n"
          "The status is 3 when there was a hit.\n\n") +
      kTerms + kTables +
      "Examples:\n"
      "  quopa watch /dev/shm/trace --on rejected --on failed\n"
      "  quopa watch /dev/shm/trace --on changes=3 --keep 30s --then 'mail -s \"$2\" ops <\"$1\"'\n"
      "  quopa watch /dev/shm/trace --on late=50ms --count 1 || echo found");
  command->callback([=, &run] { run = [=] { return watch(*options); }; });
}

void add_replay(CLI::App &app, Run &run) {
  const auto options = std::make_shared<ReplayOptions>();
  CLI::App *command = app.add_subcommand("replay", "Send what captures hold over the stand-in bus");
  command->add_option("FILE", options->paths, "Captures, and folders of captures")->required();
  command
      ->add_option("--to", options->endpoint, "Where the receiver is, like ipc:///run/routes or nats://HOST:PORT/NAME")
      ->type_name("ENDPOINT")
      ->required();
  command->add_option("--speed", options->speed, "2 is twice as fast as it was recorded; max does not wait")
      ->type_name("FACTOR|max");
  command->add_flag("--received", options->received, "Send what was received, instead of what was sent");
  add_bus(*command, options->bus);
  command->footer(
      "What was sent in one call is sent in one call. What is not acknowledged is reported; the status is then 1.\n\n"
      "Examples:\n"
      "  quopa trace /dev/shm/trace --type 'fib6Sync.*' -w some.pcapng\n"
      "  quopa replay some.pcapng --to ipc:///tmp/routes --speed max");
  command->callback([=, &run] { run = [=] { return replay(*options); }; });
}

void add_complete(CLI::App &app, Run &run) {
  CLI::App *command = app.add_subcommand("__complete")->group("")->prefix_command();
  command->set_help_flag();
  command->callback([=, &app, &run] { run = [=, &app] { return complete(app, command->remaining()); }; });
}

// What is wrong with a command line, and what may be meant by a command or an option that there is none of.
std::string explain(const CLI::App &app, const std::vector<std::string> &words, const std::string &error) {
  if (words.empty() || words[0].starts_with('-')) return error;
  const CLI::App *command = nullptr;
  drix::describe::Suggestion command_meant(words[0]);
  for (const CLI::App *one : app.get_subcommands([](const CLI::App *any) { return !any->get_group().empty(); })) {
    if (one->get_name() == words[0]) command = one;
    command_meant.consider(one->get_name());
  }
  if (command == nullptr) {
    return "no command \"" + words[0] + '"' +
           (command_meant.is_there() ? command_meant.text() : "; \"quopa --help\" lists them");
  }
  for (const std::string &word : words) {
    const std::string name = word.substr(0, word.find('='));
    if (!name.starts_with("--") || command->get_option_no_throw(name) != nullptr) continue;
    drix::describe::Suggestion option_meant(name);
    for (const CLI::Option *option : command->get_options()) {
      for (const std::string &long_name : option->get_lnames()) option_meant.consider("--" + long_name);
    }
    return error + option_meant.text();
  }
  return error;
}

}  // namespace

Run parse_command_line(int argc, char **argv) {
  const auto app = std::make_shared<CLI::App>("Shows, checks and makes the messages of libdrix_fib6.", "quopa");
  Run run;
  app->set_version_flag("--version", "quopa " QUOPA_VERSION);
  app->formatter(std::make_shared<Help>());
  app->require_subcommand(1);
  app->footer(
      "Status: 0 good; 1 bad input, a rejected buffer or differences; 2 wrong usage.\n"
      "\"quopa COMMAND --help\" explains a command, with examples.");
  add_types(*app, run);
  add_decode(*app, run);
  add_encode(*app, run);
  add_annotate(*app, run);
  add_trace(*app, run);
  add_stats(*app, run);
  add_compare(*app, run);
  add_table(*app, run);
  add_history(*app, run);
  add_diff(*app, run);
  add_watch(*app, run);
  add_replay(*app, run);
  add_dissector(*app, run);
  add_complete(*app, run);
  try {
    app->parse(argc, argv);
  } catch (const CLI::Success &wanted) {
    return [status = app->exit(wanted)] { return status; };
  } catch (const CLI::ParseError &error) {
    throw BadUsage(explain(*app, {argv + 1, argv + argc}, error.what()));
  }
  return [app, run] { return run(); };
}

}  // namespace quopa
