#include "capture/writer.h"

#include <cerrno>
#include <cstring>

#include "runtime/wire.h"

namespace capture {
namespace {

template <class T>
void put(std::vector<uint8_t> &to, T value) {
  to.resize(to.size() + sizeof value);
  drix::store(to.data() + to.size() - sizeof value, value);
}

void pad(std::vector<uint8_t> &to) { to.resize((to.size() + 3) / 4 * 4); }

constexpr uint16_t kTimeResolutionOption = 9;
constexpr uint16_t kFlagsOption = 2;

}  // namespace

Writer::Writer(const std::string &path) : path_(path), file_(path == "-" ? stdout : std::fopen(path.c_str(), "wbe")) {
  if (file_ == nullptr) fail();
  std::vector<uint8_t> section;
  put(section, TRACE_BYTE_ORDER);
  put(section, uint16_t{1});  // version 1.0
  put(section, uint16_t{0});
  put(section, UINT64_MAX);  // as long as it will be
  write_block(TRACE_SECTION_BLOCK, section);
  std::vector<uint8_t> interface;
  put(interface, uint16_t{TRACE_LINK_TYPE});
  put(interface, uint16_t{0});
  put(interface, uint32_t{0});  // no limit
  put(interface, kTimeResolutionOption);
  put(interface, uint16_t{1});
  put(interface, uint8_t{TRACE_TIME_DIGITS});
  pad(interface);
  put(interface, uint32_t{0});  // end of options
  write_block(TRACE_INTERFACE_BLOCK, interface);
}

Writer::~Writer() {
  if (file_ != stdout) std::fclose(file_);
}

void Writer::fail() const {
  throw BadCapture((path_ == "-" ? "standard output" : path_) + ": " + std::strerror(errno));
}

void Writer::flush() {
  if (std::fflush(file_) != 0) fail();
}

void Writer::write_block(uint32_t type, const std::vector<uint8_t> &body) {
  std::vector<uint8_t> edge;
  const auto length = static_cast<uint32_t>(body.size() + 12);
  put(edge, type);
  put(edge, length);
  if (std::fwrite(edge.data(), edge.size(), 1, file_) != 1 || std::fwrite(body.data(), body.size(), 1, file_) != 1 ||
      std::fwrite(edge.data() + 4, 4, 1, file_) != 1) {
    fail();
  }
}

void Writer::write_packet(const Message &message) {
  std::vector<uint8_t> body;
  put(body, uint32_t{0});  // interface
  put(body, static_cast<uint32_t>(message.time >> 32));
  put(body, static_cast<uint32_t>(message.time));
  put(body, static_cast<uint32_t>(TRACE_HEADER_BYTES + message.payload.size()));
  put(body, TRACE_HEADER_BYTES + message.length);
  body.push_back('Q');
  body.push_back('T');
  put(body, uint8_t{TRACE_VERSION});
  put(body, static_cast<uint8_t>(message.kind));
  for (const uint32_t word : {message.id, message.handle, message.destination, static_cast<uint32_t>(message.status),
                              message.index, message.count, message.thread}) {
    put(body, word);
  }
  body.insert(body.end(), message.payload.begin(), message.payload.end());
  pad(body);
  if (message.kind != TRACE_NOTE) {
    put(body, kFlagsOption);
    put(body, uint16_t{4});
    put(body, message.is_sent() ? TRACE_OUTBOUND : TRACE_INBOUND);
    put(body, uint32_t{0});
  }
  write_block(TRACE_PACKET_BLOCK, body);
}

void Writer::write_note(const Message &like, uint32_t handle, uint32_t thread, const std::string &text) {
  Message note = {};
  note.time = like.time;
  note.kind = TRACE_NOTE;
  note.handle = handle;
  note.thread = thread;
  note.length = static_cast<uint32_t>(text.size());
  note.payload = {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
  write_packet(note);
}

void Writer::write(const Message &message) {
  const Origin &origin = *message.origin;
  if (!begun_ || origin.program != program_ || origin.process != process_) {
    write_note(message, origin.pointer_bits, origin.process, TRACE_NOTE_PROGRAM + origin.program);
    program_ = origin.program;
    process_ = origin.process;
  }
  if (!begun_ || origin.schema != schema_) {
    const std::string text = origin.schema.empty() ? to_text(drix::describe::current_schema()) : origin.schema;
    write_note(message, 0, 0, TRACE_NOTE_SCHEMA + text);
    schema_ = origin.schema;
  }
  begun_ = true;
  write_packet(message);
}

}  // namespace capture
