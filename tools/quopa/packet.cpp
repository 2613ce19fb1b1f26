#include "tools/quopa/packet.h"

#include <charconv>
#include <filesystem>
#include <optional>

#include "capture/timeline.h"
#include "describe/printable.h"
#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/input.h"
#include "tools/quopa/show.h"
#include "tools/quopa/styles.h"

namespace quopa {
namespace {

using drix::describe::Type;

struct PacketName {
  std::string capture;
  uint64_t number;
};

// No value when the text names no packet; a file may have any name.
std::optional<PacketName> packet_of(const std::string &text) {
  const std::size_t mark = text.rfind('#');
  std::error_code error;
  if (mark == 0 || mark == std::string::npos || std::filesystem::exists(text, error)) return std::nullopt;
  PacketName name = {text.substr(0, mark), 0};
  const char *const end = text.data() + text.size();
  const auto [last, failure] = std::from_chars(text.data() + mark + 1, end, name.number);
  if (failure != std::errc() || last != end) throw BadUsage(text + ": a packet has a number behind the #");
  return name;
}

// The packet's message, of the type that is given or else of that which its capture knows.
Subject read_packet(const PacketName &name, const Type *type, const std::string &labels, bool ipv6) {
  const std::vector<std::string> files = capture::captures_in(name.capture);
  if (files.size() > 1) {
    throw BadUsage(name.capture + " has several captures; name the one, as \"quopa trace\" does in each line");
  }
  capture::File file(files[0]);
  const Message *message = nullptr;
  uint64_t packets = 0;
  while (packets < name.number && (message = file.next()) != nullptr) ++packets;
  if (message == nullptr) {
    throw BadInput(name_of(name.capture) + " has no packet " + std::to_string(name.number) + ", but " +
                   std::to_string(packets) + " from 1 on");
  }
  const std::string text = packet_name(*message);
  if (message->kind == TRACE_NOTE) {
    throw BadInput(text + " is no message but a note: " + drix::describe::shortened(message->text()));
  }
  if (type == nullptr) type = message->type();
  if (type == nullptr) {
    throw BadInput(text + ": its capture does not know the type " + type_name(*message) + "; name another before it");
  }
  if (message->is_cut()) {
    complain(text + " was cut to " + std::to_string(message->payload.size()) + " of " +
             std::to_string(message->length) + " bytes");
  }
  Styles styles(read_labels(labels), ipv6);
  return {text, type, {message->payload.begin(), message->payload.end()}, styles.of(*message->origin)};
}

}  // namespace

Subject read_subject(const std::string &type, const std::string &file, bool hexadecimal, const std::string &labels,
                     bool ipv6) {
  if (const auto packet = file == "-" ? packet_of(type) : std::nullopt) {
    return read_packet(*packet, nullptr, labels, ipv6);
  }
  const Type &known = find_type(type);
  if (const auto packet = packet_of(file)) return read_packet(*packet, &known, labels, ipv6);
  return {name_of(file), &known, read_buffer(file, hexadecimal), {read_labels(labels), ipv6}};
}

}  // namespace quopa
