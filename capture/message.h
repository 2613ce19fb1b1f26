// A message of a trace: what crossed the bus, or what the recorder noted.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "capture/format.h"
#include "capture/pcap.h"
#include "describe/catalog.h"

namespace capture {

// Of what is no trace of the bus, or damaged: one line for the user.
struct BadCapture : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Gets what is wrong with a capture that is read on nevertheless, in one line.
using Complaint = std::function<void(const std::string &)>;

// Who recorded a message, as far as its file tells.
struct Origin {
  std::string capture;  // the file's path
  std::string program;
  uint32_t process = 0;
  uint32_t pointer_bits = 0;
  std::string schema;                                                      // empty: the file brings none
  const drix::describe::Catalog *types = &drix::describe::Catalog::own();  // those of the schema
};

struct Message {
  uint64_t packet;  // its number in its file, from 1, where notes count too; what other readers of pcapng call it
  uint64_t time;    // nanoseconds since 1970
  TraceKind kind;
  uint32_t id;
  uint32_t handle;
  uint32_t destination;
  int32_t status;
  uint32_t index;
  uint32_t count;
  uint32_t thread;
  uint32_t length;                   // that it had when it crossed the bus
  std::span<const uint8_t> payload;  // shorter when it was cut; valid until the next message is read
  const Origin *origin;              // likewise

  bool is_sent() const { return kind == TRACE_SENT; }
  bool is_received() const { return kind == TRACE_RECEIVED; }
  bool is_cut() const { return payload.size() < length; }
  bool has_failed() const { return status != 0; }  // nothing was sent, or nobody knows
  const drix::describe::Type *type() const { return origin->types->find(id); }
  std::string_view text() const { return {reinterpret_cast<const char *>(payload.data()), payload.size()}; }
};

// Takes a packet apart, and what the notes program and schema say into the origin. The caller counts packets. Throws
// BadCapture, without a file's name.
Message take_packet(const Packet &packet, Origin &origin);

// The types that a schema text describes; the same object for the same text. Throws BadCapture.
const drix::describe::Catalog &catalog_of(std::string_view schema);

}  // namespace capture
