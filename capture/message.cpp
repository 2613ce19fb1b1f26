#include "capture/message.h"

#include <list>

#include "runtime/wire.h"

namespace capture {
namespace {

using drix::load;
using drix::describe::Catalog;

// A trace has the schemas of the programs that were traced: a few.
constexpr std::size_t kMostSchemas = 64;

constexpr uint32_t kUserLinkTypes = 16;

struct Known {
  explicit Known(std::string_view schema) : text(schema), catalog(drix::describe::parse_schema(schema)) {}

  std::string text;
  Catalog catalog;
};

bool is_own(std::string_view schema) {
  static const std::string own = to_text(drix::describe::current_schema());
  return schema == own;
}

Message parse(const Packet &packet) {
  const uint8_t *const bytes = packet.bytes.data();
  if (packet.link_type < TRACE_LINK_TYPE || packet.link_type >= TRACE_LINK_TYPE + kUserLinkTypes) {
    throw BadCapture("of link type " + std::to_string(packet.link_type) + ", so this is no trace of the bus");
  }
  if (packet.bytes.size() < TRACE_HEADER_BYTES || packet.length < packet.bytes.size() || bytes[TRACE_MAGIC_AT] != 'Q' ||
      bytes[TRACE_MAGIC_AT + 1] != 'T') {
    throw BadCapture("no message of the bus, so this is no trace of it");
  }
  if (bytes[TRACE_VERSION_AT] != TRACE_VERSION || bytes[TRACE_KIND_AT] > TRACE_NOTE) {
    throw BadCapture("recorded in version " + std::to_string(bytes[TRACE_VERSION_AT]) + '.' +
                     std::to_string(bytes[TRACE_KIND_AT]) + " of the format, which is unknown here");
  }
  return {.packet = 0,
          .time = packet.time,
          .kind = static_cast<TraceKind>(bytes[TRACE_KIND_AT]),
          .id = load<uint32_t>(bytes + TRACE_ID_AT),
          .handle = load<uint32_t>(bytes + TRACE_HANDLE_AT),
          .destination = load<uint32_t>(bytes + TRACE_DESTINATION_AT),
          .status = static_cast<int32_t>(load<uint32_t>(bytes + TRACE_STATUS_AT)),
          .index = load<uint32_t>(bytes + TRACE_INDEX_AT),
          .count = load<uint32_t>(bytes + TRACE_COUNT_AT),
          .thread = load<uint32_t>(bytes + TRACE_THREAD_AT),
          .length = packet.length - TRACE_HEADER_BYTES,
          .payload = packet.bytes.subspan(TRACE_HEADER_BYTES),
          .origin = nullptr};
}

void take_note(const Message &note, Origin &origin) {
  std::string_view text = note.text();
  if (text.starts_with(TRACE_NOTE_PROGRAM)) {
    text.remove_prefix(sizeof TRACE_NOTE_PROGRAM - 1);
    origin.program = text;
    for (char &c : origin.program) {
      if (c < ' ' || c > '~') c = '?';  // nothing for a terminal
    }
    origin.process = note.thread;
    origin.pointer_bits = note.handle;
  } else if (text.starts_with(TRACE_NOTE_SCHEMA)) {
    if (note.is_cut()) throw BadCapture("the schema is cut off");
    text.remove_prefix(sizeof TRACE_NOTE_SCHEMA - 1);
    if (origin.schema == text) return;
    origin.types = &catalog_of(text);
    origin.schema = text;
  }
}

}  // namespace

Message take_packet(const Packet &packet, Origin &origin) {
  Message message = parse(packet);
  message.origin = &origin;
  if (message.kind == TRACE_NOTE) take_note(message, origin);
  return message;
}

const Catalog &catalog_of(std::string_view schema) {
  static std::list<Known> known;
  if (is_own(schema)) return Catalog::own();
  for (const Known &one : known) {
    if (one.text == schema) return one.catalog;
  }
  if (known.size() == kMostSchemas) throw BadCapture("more than 64 schemas");
  try {
    return known.emplace_back(schema).catalog;
  } catch (const drix::describe::SchemaError &error) {
    throw BadCapture("line " + std::to_string(error.line) + " of the schema: " + error.what());
  }
}

}  // namespace capture
