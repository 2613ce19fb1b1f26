#include "tools/quopa/show.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "capture/ring_file.h"
#include "describe/printable.h"
#include "inspect/digits.h"

namespace quopa {
namespace {

using drix::Kind;
using drix::describe::printable;
using drix::describe::SlotInfo;
using drix::inspect::JsonStyle;
using drix::inspect::Label;
using drix::inspect::TablePath;
using Match = drix::inspect::Where::Match;

constexpr uint64_t kPerSecond = 1000000000;
constexpr std::size_t kMostMembers = 40;  // of a line of text
constexpr std::size_t kMostBytes = 32;    // of a byte string in it

const char *arrow(const Message &message) { return message.is_sent() ? "->" : message.is_received() ? "<-" : "--"; }

// f1[2].f3=64
void show_member(std::ostream &out, const Look &look, const JsonStyle &style, const Match &member) {
  const auto &[path, index, table] = member;
  if (path.outer != TablePath::kNone) {
    out << style.labels.name(*look.type(), path.outer);
    if (path.element != TablePath::kNone) out << '[' << path.element << ']';
    out << '.';
  }
  out << style.labels.name(*path.type, index) << '='
      << value_text(path.type->slots[index], table, style.labels.find(*path.type, index));
}

// Those that are not zero, and those for which the message was chosen. How many more there are than a line takes is not
// told: a short message may have millions.
void show_members(std::ostream &out, Look &look, const JsonStyle &style) {
  const uint8_t *const record = look.record();
  std::vector<Match> matches = look.matches();
  std::size_t members = 0;
  const auto show = [&](const TablePath &path, std::size_t index, const uint8_t *table) {
    const auto match = std::find_if(matches.begin(), matches.end(),
                                    [&](const Match &one) { return one.table == table && one.slot == index; });
    if (match == matches.end() && is_zero(path.type->slots[index], table)) return true;
    if (++members > kMostMembers) {
      out << " ...";
      return false;
    }
    if (match != matches.end()) matches.erase(match);
    out << ' ';
    show_member(out, look, style, {path, index, table});
    return true;
  };
  for_each_member(*look.type(), record, look.extent(), show);
  if (members <= kMostMembers) return;
  for (const Match &match : matches) {
    show_member(out << ' ', look, style, match);
    out << " ...";
  }
  out << " more";
}

// The status where it is not good.
std::string status_text(const Message &message) {
  if (message.status == 0) return {};
  if (message.status == TRACE_NO_ANSWER) return "NO ANSWER";
  return message.is_received() ? "DECODER FAILED" : "FAILED " + std::to_string(message.status);
}

void show_origin_json(std::ostream &out, const Message &message) {
  out << "{\"capture\":" << json_string(printable(message.origin->capture)) << ",\"packet\":" << message.packet
      << ",\"time\":" << seconds_text(message.time) << ",\"time_ns\":\"" << message.time
      << "\",\"program\":" << json_string(message.origin->program) << ",\"process\":" << message.origin->process;
}

void show_origin_text(std::ostream &out, const Message &message, const LineStyle &line) {
  const std::string &program = message.origin->program;
  line.has_capture ? out << printable(packet_name(message)) : out << '#' << message.packet;
  out << ' ' << time_text(message.time, line.has_date);
  if (line.before) {
    const bool is_later = message.time >= *line.before;
    const uint64_t distance = is_later ? message.time - *line.before : *line.before - message.time;
    const std::string seconds = seconds_text(distance);
    out << (is_later ? " +" : " -") << seconds.substr(0, seconds.size() - 3);  // microseconds, as the time
  }
  out << ' ' << program << (program.empty() ? "" : " ");
}

}  // namespace

std::string json_string(const std::string &text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c < ' ' ? ' ' : c;
  }
  return result + '"';
}

bool is_zero(const SlotInfo &slot, const uint8_t *table) {
  if (slot.kind == Kind::bytes) return drix::inspect::member<uint32_t>(table, slot.length_member) == 0;
  const uint8_t *const value = table + slot.member;
  const std::size_t size = slot.width * std::max<std::size_t>(slot.elements, 1);
  return std::all_of(value, value + size, [](uint8_t byte) { return byte == 0; });
}

std::string value_text(const SlotInfo &slot, const uint8_t *table, const Label *label) {
  const uint8_t *value = table + slot.member;
  if (slot.kind == Kind::scalar) return drix::inspect::scalar_text(drix::inspect::number_at(value, slot.width), label);
  std::string text;
  if (slot.kind == Kind::bytes || slot.width == 1) {
    std::size_t size = slot.elements;
    if (slot.kind == Kind::bytes) {
      size = drix::inspect::member<uint32_t>(table, slot.length_member);
      value = drix::inspect::member<const uint8_t *>(table, slot.member);
    }
    drix::inspect::append_hex(text, {value, std::min(size, kMostBytes)});
    return size <= kMostBytes ? text : text + "...(" + std::to_string(size) + " bytes)";
  }
  if (slot.is_address()) return drix::inspect::address_text(value);
  for (std::size_t i = 0; i < slot.elements; ++i) {
    text += (i == 0 ? "[" : ",") + std::to_string(drix::inspect::number_at(value + i * slot.width, slot.width));
  }
  return text + ']';
}

std::string type_name(const Message &message) {
  const drix::describe::Type *const type = message.type();
  if (type != nullptr) return type->name();
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", message.id);
  return text;
}

std::string time_text(uint64_t nanoseconds, bool with_date) {
  const auto seconds = static_cast<std::time_t>(nanoseconds / kPerSecond);
  std::tm local = {};
  char text[64] = "?";
  if (localtime_r(&seconds, &local) == nullptr) return text;
  const std::size_t length = std::strftime(text, sizeof text, with_date ? "%F %T" : "%T", &local);
  std::snprintf(text + length, sizeof text - length, ".%06u", static_cast<unsigned>(nanoseconds % kPerSecond / 1000));
  return text;
}

std::string seconds_text(uint64_t nanoseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%llu.%09llu", static_cast<unsigned long long>(nanoseconds / kPerSecond),
                static_cast<unsigned long long>(nanoseconds % kPerSecond));
  return text;
}

std::string note_text(const Message &note) {
  const auto told = [&](std::string_view word, const char *what) {
    const std::string_view number = note.text().substr(word.size());
    return std::string(number.substr(0, number.find_first_not_of("0123456789"))) + what;
  };
  if (note.text().starts_with(TRACE_NOTE_LOST)) return told(TRACE_NOTE_LOST, " messages were not recorded");
  if (note.text().starts_with(TRACE_NOTE_UNWRAPPED)) return told(TRACE_NOTE_UNWRAPPED, " decoders are not seen");
  return {};
}

std::string packet_name(const Message &message) {
  return capture::short_path(message.origin->capture) + '#' + std::to_string(message.packet);
}

void show_text(std::ostream &out, Look &look, const JsonStyle &style, const LineStyle &line) {
  const Message &message = look.message();
  show_origin_text(out, message, line);
  out << arrow(message) << ' ' << type_name(message);
  if (message.is_sent() && message.handle != 0) out << " h" << message.handle;
  if (message.destination != 0) out << " to " << message.destination;
  if (message.count > 1) out << " #" << uint64_t{message.index} + 1 << '/' << message.count;
  const char *const red = line.has_color ? "\033[1;31m" : "";
  const char *const plain = line.has_color ? "\033[0m" : "";
  const std::string status = status_text(message);
  if (!status.empty()) out << ' ' << red << status << plain;
  if (message.is_cut()) out << " CUT to " << message.payload.size() << " of " << message.length << " bytes";
  if (look.is_rejected()) {
    const drix::inspect::Verdict &verdict = look.verdict();
    out << ' ' << red << "REJECTED" << plain << " at " << verdict.culprit.at << ": " << explain(verdict)
        << (verdict.logged() ? "" : " (not logged)");
    for (const Match &match : look.matches()) show_member(out << ' ', look, style, match);
  } else if (look.type() == nullptr) {
    out << " unknown type, " << message.length << " bytes";
  } else {
    show_members(out, look, style);
  }
}

void show_json(std::ostream &out, Look &look, const JsonStyle &style, bool with_bytes) {
  const Message &message = look.message();
  show_origin_json(out, message);
  out << ",\"direction\":" << (message.is_sent() ? "\"sent\"" : "\"received\"") << ",\"type\":";
  look.type() == nullptr ? out << "null" : out << '"' << look.type()->name() << '"';
  out << ",\"id\":" << message.id << ",\"handle\":" << message.handle << ",\"destination\":" << message.destination
      << ",\"status\":";
  message.status == TRACE_NO_ANSWER ? out << "null" : out << message.status;
  out << ",\"index\":" << message.index << ",\"count\":" << message.count << ",\"thread\":" << message.thread
      << ",\"length\":" << message.length;
  if (message.is_cut()) out << ",\"captured\":" << message.payload.size();
  if (with_bytes) {
    std::string bytes;
    drix::inspect::append_hex(bytes, message.payload);
    out << ",\"bytes\":\"" << bytes << '"';
  }
  if (look.is_rejected()) {
    const drix::inspect::Verdict &verdict = look.verdict();
    out << ",\"rejected\":{\"at\":" << verdict.culprit.at << ",\"reason\":" << json_string(explain(verdict))
        << ",\"logged\":" << (verdict.logged() ? "true" : "false") << '}';
  }
  if (look.type() != nullptr) {
    const uint8_t *const record = look.record();
    out << ",\"record\":";
    write_json(out, *look.type(), record, style, look.verdict().accepted() ? nullptr : &look.verdict());
  }
  out << '}';
}

void show_note(std::ostream &out, const Message &note, bool json, const LineStyle &line) {
  const std::string text = note_text(note);
  if (text.empty()) return;
  if (json) {
    show_origin_json(out, note);
    out << ",\"note\":" << json_string(text) << "}\n";
  } else {
    show_origin_text(out, note, line);
    out << "-- " << text << '\n';
  }
}

}  // namespace quopa
