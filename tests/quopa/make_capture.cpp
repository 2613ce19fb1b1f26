// Makes captures for the tests of what reads them, in either byte order: random records of all types, in both layouts,
// as they are or with one byte spoiled; or as a sender and a
// receiver saw them.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "capture/format.h"
#include "codec.h"
#include "tools/records/records.h"

namespace {

using reference::Bytes;

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

  void packet(uint64_t time, TraceKind kind, uint32_t id, const Bytes &payload) {
    Bytes body;
    const auto size = static_cast<uint32_t>(TRACE_HEADER_BYTES + payload.size());
    for (const uint32_t word : {0u, static_cast<uint32_t>(time >> 32), static_cast<uint32_t>(time), size, size})
      put(body, word);
    body.insert(body.end(), {'Q', 'T', TRACE_VERSION, static_cast<uint8_t>(kind)});
    for (const uint32_t word : {id, 1u, 0u, 0u, 0u, 1u, 7u}) {
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

}  // namespace

// make_capture RECORDS good|spoiled|exchanged little|big [MESSAGE OF fib6Sync]
int main(int argc, char **argv) {
  if (argc < 4) return 2;
  const bool spoiled = std::string(argv[2]) == "spoiled";
  const bool exchanged = std::string(argv[2]) == "exchanged";
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
    const uint64_t time = 1764061000123456789u + i * 1000000;
    if (!exchanged) {
      file.packet(time, i % 2 == 0 ? TRACE_SENT : TRACE_RECEIVED, type.message_id(), payload);
      continue;
    }
    // Every tenth message is lost, every 25th arrives twice, the first of all was never sent.
    if (i > 0) file.packet(time, TRACE_SENT, type.message_id(), payload);
    for (int k = 0; k < (i % 10 == 9 ? 0 : i % 25 == 24 ? 2 : 1); ++k) {
      file.packet(time + 1000 * (i + 1), TRACE_RECEIVED, type.message_id(), payload);
    }
  }
}
