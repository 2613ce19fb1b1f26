// Makes captures for the tests of what reads them, in either byte order: random records of all types, in both layouts,
// as they are or with one byte spoiled; or what a table says.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "capture/format.h"
#include "codec.h"
#include "tools/records/records.h"

namespace {

using reference::Bytes;

struct Packet {
  uint64_t time;
  TraceKind kind;
  uint32_t id;
  uint32_t handle = 1;
  int32_t status = 0;
  uint32_t index = 0;
  uint32_t count = 1;
  uint32_t thread = 7;
};

class File {
 public:
  explicit File(bool big_endian) : big_endian_(big_endian) {
    Bytes section;
    put(section, TRACE_BYTE_ORDER);
    put(section, big_endian_ ? 0x00010000u : 1u);
    section.resize(section.size() + 8, 0xFF);
    block(TRACE_SECTION_BLOCK, section);
    Bytes interface;
    put(interface, big_endian_ ? TRACE_LINK_TYPE << 16 : TRACE_LINK_TYPE);
    put(interface, 0);
    put(interface, big_endian_ ? 0x00090001u : 0x00010009u);
    interface.insert(interface.end(), {TRACE_TIME_DIGITS, 0, 0, 0, 0, 0, 0, 0});
    block(TRACE_INTERFACE_BLOCK, interface);
  }

  // Of the payload so much was captured.
  void packet(const Packet &packet, Bytes payload, std::size_t captured = SIZE_MAX) {
    Bytes body;
    const auto length = static_cast<uint32_t>(TRACE_HEADER_BYTES + payload.size());
    payload.resize(std::min(payload.size(), captured));
    const auto size = static_cast<uint32_t>(TRACE_HEADER_BYTES + payload.size());
    for (const uint32_t word :
         {0u, static_cast<uint32_t>(packet.time >> 32), static_cast<uint32_t>(packet.time), size, length})
      put(body, word);
    body.insert(body.end(), {'Q', 'T', TRACE_VERSION, static_cast<uint8_t>(packet.kind)});
    for (const uint32_t word : {packet.id, packet.handle, 0u, static_cast<uint32_t>(packet.status), packet.index,
                                packet.count, packet.thread}) {
      for (uint32_t shift = 0; shift < 32; shift += 8) body.push_back(static_cast<uint8_t>(word >> shift));
    }
    body.insert(body.end(), payload.begin(), payload.end());
    body.resize((body.size() + 3) / 4 * 4);
    block(TRACE_PACKET_BLOCK, body);
  }

 private:
  void put(Bytes &to, uint32_t value) const {
    for (uint32_t i = 0; i < 4; ++i) to.push_back(static_cast<uint8_t>(value >> (big_endian_ ? 24 - 8 * i : 8 * i)));
  }

  void block(uint32_t type, const Bytes &body) const {
    Bytes whole;
    const auto length = static_cast<uint32_t>(body.size() + 12);
    put(whole, type);
    put(whole, length);
    whole.insert(whole.end(), body.begin(), body.end());
    put(whole, length);
    if (std::fwrite(whole.data(), whole.size(), 1, stdout) != 1) std::exit(1);
  }

  bool big_endian_;
};

constexpr uint64_t kStart = 1764061000123456789u;
constexpr uint64_t kMillisecond = 1000000;

// A line a packet: "note HANDLE THREAD TEXT", or "sent" or "received", milliseconds, the type's name in fib6Sync or a
// message ID, a number for the first member or the payload's bytes behind 0x, and what is not as usual: status N, call INDEX COUNT, thread N, handle N,
// captured BYTES.
void write_table(std::istream &table, File &file) {
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream row(line);
    Packet packet = {kStart, TRACE_NOTE, 0, 0};
    std::string way;
    row >> way;
    if (way == "note") {
      std::string text;
      std::getline(row >> packet.handle >> packet.thread >> std::ws, text);
      file.packet(packet, Bytes(text.begin(), text.end()));
      continue;
    }
    uint64_t milliseconds = 0;
    std::string name, content;
    row >> milliseconds >> name >> content;
    packet = {kStart + milliseconds * kMillisecond, way == "sent" ? TRACE_SENT : TRACE_RECEIVED, 0};
    std::size_t captured = SIZE_MAX;
    for (std::string what; row >> what;) {
      if (what == "status") row >> packet.status;
      if (what == "call") row >> packet.index >> packet.count;
      if (what == "thread") row >> packet.thread;
      if (what == "handle") row >> packet.handle;
      if (what == "captured") row >> captured;
    }
    const bool is_bytes = content.starts_with("0x");
    const auto number = is_bytes ? 0 : static_cast<uint32_t>(std::stoul(content));
    if (name.starts_with("0x")) {
      packet.id = static_cast<uint32_t>(std::stoul(name, nullptr, 16));
      Bytes payload(number);
      for (std::size_t i = 2; is_bytes && i + 1 < content.size(); i += 2) {
        payload.push_back(static_cast<uint8_t>(std::stoul(content.substr(i, 2), nullptr, 16)));
      }
      file.packet(packet, payload, captured);
    } else {
      const reference::Type &type = reference::find("fib6Sync", name);
      packet.id = type.id;
      Bytes record(type.record_size);
      records::store_number(record.data(), sizeof number, number);
      file.packet(packet, reference::pack(type, record.data()), captured);
    }
  }
}

}  // namespace

// make_capture table little|big <TABLE
// make_capture RECORDS good|spoiled little|big [MESSAGE OF fib6Sync]
int main(int argc, char **argv) {
  if (argc == 3) {
    File file(std::string(argv[2]) == "big");
    write_table(std::cin, file);
    return 0;
  }
  if (argc < 4) return 2;
  const bool spoiled = std::string(argv[2]) == "spoiled";
  File file(std::string(argv[3]) == "big");
  records::Random random(1);
  const auto &all = reference::all_types();
  for (unsigned long i = 0; i < std::strtoul(argv[1], nullptr, 10); ++i) {
    const reference::Type &type = argc > 4 ? reference::find("fib6Sync", argv[4]) : *all[i % all.size()];
    records::Arena arena;
    Bytes record(type.record_size);
    records::fill_random(type, record.data(), random, {.zeros = 25 * random.below(4)}, arena);
    const bool fixed = type.is_fixed() && random.below(2) == 0;
    Bytes payload = fixed ? reference::build_fixed(type, record.data()) : reference::pack(type, record.data());
    if (spoiled)
      payload[random.below(static_cast<uint32_t>(payload.size()))] ^= static_cast<uint8_t>(1u << random.below(8));
    if (spoiled && random.below(4) == 0) payload.resize(random.below(static_cast<uint32_t>(payload.size())));
    const uint64_t time = kStart + i * kMillisecond;
    file.packet({time, i % 2 == 0 ? TRACE_SENT : TRACE_RECEIVED, type.id}, payload);
  }
}
