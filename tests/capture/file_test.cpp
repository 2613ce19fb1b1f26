// Captures as other programs may write them, made by hand in either byte order, and what is not one.
#include "capture/file.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kUser0 = 147;

// A file in one byte order.
class Maker {
 public:
  explicit Maker(bool big_endian) : big_endian_(big_endian) {}

  Maker &number(uint64_t value, uint32_t width) {
    for (uint32_t i = 0; i < width; ++i) {
      bytes.push_back(static_cast<uint8_t>(value >> 8 * (big_endian_ ? width - 1 - i : i)));
    }
    return *this;
  }
  Maker &u16(uint64_t value) { return number(value, 2); }
  Maker &u32(uint64_t value) { return number(value, 4); }
  Maker &add(const Bytes &more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return *this;
  }
  Maker &pad() {
    while (bytes.size() % 4 != 0) bytes.push_back(0);
    return *this;
  }

  Maker &block(uint32_t type, const Bytes &body, uint32_t second_length = 0) {
    const std::size_t length = body.size() + 12;
    return u32(type).u32(length).add(body).u32(second_length == 0 ? length : second_length);
  }
  Maker &section() { return block(0x0A0D0D0A, part().u32(0x1A2B3C4D).u16(1).u16(0).number(UINT64_MAX, 8).bytes); }
  Maker &interface(const Bytes &options = {}, uint32_t link_type = kUser0) {
    return block(1, part().u16(link_type).u16(0).u32(0).add(options).bytes);
  }
  // With a comment behind it.
  Maker &packet(uint64_t ticks, const Bytes &data, uint32_t interface = 0) {
    Maker body = part().u32(interface).u32(ticks >> 32).u32(ticks).u32(data.size()).u32(data.size()).add(data);
    return block(6, body.pad().u16(1).u16(3).add({'a', 'b', 'c', 0}).u32(0).bytes);
  }
  Maker part() const { return Maker(big_endian_); }

  Bytes bytes;

 private:
  bool big_endian_;
};

Maker little() { return Maker(false); }

// A message, always little-endian; its ID and its payload's bytes are the number.
Bytes make_message(uint8_t number, std::size_t payload = 5) {
  Bytes bytes = {'Q', 'T', 1, 0, number, 0, 0, 0};
  bytes.resize(32);
  bytes.resize(32 + payload, number);
  return bytes;
}

// What a capture says: "ID@TIME" for each message, and at the end what is wrong with it.
std::string read(const Bytes &bytes) {
  std::string said;
  try {
    capture::File file{std::span<const uint8_t>(bytes)};
    while (const capture::Message *const found = file.next()) {
      said += std::to_string(found->id) + '@' + std::to_string(found->time) + ' ';
      for (const uint8_t byte : found->payload) EXPECT_EQ(byte, found->id);
    }
  } catch (const capture::BadCapture &error) {
    said += error.what();
  }
  return said;
}

TEST(CaptureFile, IsReadInEitherByteOrderAndEveryUnitOfTime) {
  for (const bool big : {false, true}) {
    const Maker maker(big);
    for (const auto &[magic, time] :
         {std::pair(0xA1B2C3D4u, "7@3000004000 "), std::pair(0xA1B23C4Du, "7@3000000004 ")}) {
      Maker file = maker.part().u32(magic).u16(2).u16(4).u32(0).u32(0).u32(0).u32(kUser0 | 0x14000000);
      file.u32(3).u32(4).u32(37).u32(37).add(make_message(7));
      EXPECT_EQ(read(file.bytes), time) << std::hex << magic;
    }
    const auto unit = [&](uint32_t value) {
      return maker.part().u16(1).u16(1).add({'x', 0, 0, 0}).u16(9).u16(1).number(value, 1).pad().bytes;
    };
    const struct {
      Bytes options;
      uint64_t ticks;
      const char *said;
    } cases[] = {
        {{}, 1764061000123456, "7@1764061000123456000 "},
        {maker.part().u32(0).u16(9).u16(1).add({9, 0, 0, 0}).bytes, 1, "7@1000 "},  // behind the end of the options
        {unit(9), 1764061000123456789, "7@1764061000123456789 "},
        {unit(0), 17, "7@17000000000 "},
        {unit(12), 17000000000005999, "7@17000000000005 "},
        {unit(19), 10000000000000000000u, "7@1000000000 "},
        {unit(0x80), 17, "7@17000000000 "},
        {unit(0x8A), 17 << 10 | 1 << 9, "7@17500000000 "},
        {unit(0x80 | 63), uint64_t{1} << 63 | uint64_t{1} << 62, "7@1500000000 "},
        {maker.part().u16(14).u16(8).number(100, 8).bytes, 2000000, "7@102000000000 "},
    };
    for (const auto &[options, ticks, said] : cases) {
      Maker file = maker.part();
      EXPECT_EQ(read(file.section().interface(options).packet(ticks, make_message(7)).bytes), said) << big;
    }
  }
}

TEST(CaptureFile, HasSectionsInterfacesAndMuchToPassOver) {
  Maker first = little();
  first.section().interface().interface(little().u16(9).u16(1).add({0, 0, 0, 0}).bytes);
  first.packet(5, make_message(1), 1)
      .packet(6, make_message(4, (256 << 10) - 32), 1)
      .block(0x80000051, Bytes(20))
      .block(0x80000051, Bytes(20), 999)
      .block(4, Bytes(8));
  Maker second(true);
  second.section().interface({}, kUser0 + 15).packet(6, make_message(2)).packet(7, make_message(3, 0));
  Bytes both = first.bytes;
  both.insert(both.end(), second.bytes.begin(), second.bytes.end());
  EXPECT_EQ(read(both), "1@5000000000 4@6000000000 2@6000 3@7000 ");
}

TEST(CaptureFile, IsDamagedAtOnePlace) {
  const Maker good = little().section().interface().packet(1, make_message(1));
  const std::string behind = "damaged behind packet 1, at byte " + std::to_string(good.bytes.size()) + ": ";
  const auto packet = [](uint32_t interface, uint32_t captured) {
    return little().u32(interface).u32(0).u32(0).u32(captured).u32(captured).add(make_message(2, 8)).bytes;
  };
  const struct {
    Bytes more;
    std::string said;
  } cases[] = {
      {little().u32(6).u32(8).u32(8).bytes, behind + "a block of 8 bytes"},
      {little().u32(6).u32(50).add(Bytes(50)).bytes, behind + "a block of 50 bytes"},
      {little().u32(6).u32(0x01000004).bytes, behind + "a block of 16777220 bytes"},
      {little().block(6, packet(0, 40), 76).bytes, behind + "a block whose two lengths differ"},
      {little().block(6, packet(0, 41)).bytes, behind + "a packet that is longer than its block"},
      {little().block(6, packet(0, UINT32_MAX)).bytes, behind + "a packet of 4294967295 bytes"},
      {little().packet(0, make_message(2, (256 << 10) - 31)).bytes, behind + "a packet of 262145 bytes"},
      {little().block(6, packet(1, 40)).bytes, behind + "a packet of an interface that is not described"},
      {little().block(6, Bytes(16)).bytes, behind + "a packet block of 28 bytes"},
      {little().block(3, Bytes(40)).bytes, behind + "a packet block of type 3, which no trace has"},
      {little().block(1, Bytes(4)).bytes, behind + "an interface block of 16 bytes"},
      {little().interface(little().u16(9).u16(5).add(Bytes(4)).bytes).bytes,
       behind + "an option that is longer than its block"},
      {little().interface(little().u16(9).u16(1).u32(20).bytes).bytes, behind + "a unit of time of 20"},
      {little().interface(little().u16(9).u16(1).u32(0xC0).bytes).bytes, behind + "a unit of time of 192"},
      {little().block(0x0A0D0D0A, Bytes(16)).bytes, behind + "a section in no known byte order"},
      {little().block(0x0A0D0D0A, little().u32(0x1A2B3C4D).u16(2).u16(0).number(0, 8).bytes).bytes,
       behind + "pcapng of version 2"},
      {Maker(false)
           .block(0x0A0D0D0A, little().u32(0x1A2B3C4D).u16(1).u16(0).number(0, 8).bytes)
           .block(6, packet(0, 40))
           .bytes,
       "damaged behind packet 1, at byte " + std::to_string(good.bytes.size() + 28) +
           ": a packet of an interface that is not described"},
      {little().interface({}, 1).packet(0, make_message(2), 1).bytes,
       "packet 2: of link type 1, so this is no trace of the bus"},
      {little().interface({}, kUser0 + 16).packet(0, make_message(2), 1).bytes,
       "packet 2: of link type 163, so this is no trace of the bus"},
      {little().packet(0, Bytes(31, 'Q')).bytes, "packet 2: no message of the bus, so this is no trace of it"},
      {little().u32(0x80000051).u32(0xFFFFFFF0).bytes, ""},  // a file that was cut in what was never used
  };
  for (const auto &[more, said] : cases) {
    Bytes bytes = good.bytes;
    bytes.insert(bytes.end(), more.begin(), more.end());
    EXPECT_EQ(read(bytes), "1@1000 " + (said.empty() ? said : ": " + said));
  }
  EXPECT_EQ(read({}), ": no capture file: it is empty");
  EXPECT_EQ(read(Bytes(40)), ": no capture file: neither pcap nor pcapng");
  Maker pcap = Maker(true).u32(0xA1B2C3D4).u16(2).u16(4).u32(0).u32(0).u32(0).u32(kUser0).u32(0).u32(0);
  EXPECT_EQ(read(pcap.u32(262145).u32(5).bytes), ": damaged behind packet 0, at byte 24: a packet of 262145 bytes");
}

TEST(CaptureFile, HasWhatTheHeaderAndTheNotesSay) {
  const auto with = [](uint8_t kind, const std::string &text) {
    Bytes bytes = {'Q', 'T', 1, kind};
    Maker words(false);
    words.u32(0x01020304).u32(5).u32(6).u32(0x80000007).u32(8).u32(9).u32(10);
    bytes.insert(bytes.end(), words.bytes.begin(), words.bytes.end());
    bytes.insert(bytes.end(), text.begin(), text.end());
    return bytes;
  };
  const auto add = [](Maker &to, const Bytes &data, std::size_t cut_from = 0) {
    Maker body = little().u32(0).u32(0).u32(1).u32(data.size()).u32(std::max(cut_from, data.size())).add(data);
    to.block(6, body.pad().bytes);
  };
  for (const bool big : {false, true}) {  // of the file: the header has its own order
    Maker file(big);
    file.section().interface().packet(1, with(2, "program a\x1b[1m\x7f\xff")).packet(1, with(0, "xyz"));
    capture::File reader{std::span<const uint8_t>(file.bytes)};
    ASSERT_NE(reader.next(), nullptr);
    const capture::Message found = *reader.next();
    std::ostringstream said;
    said << found.is_sent() << std::hex << " id " << found.id << std::dec << " handle " << found.handle << " to "
         << found.destination << " status " << found.status << " message " << found.index << '/' << found.count
         << " thread " << found.thread << ' ' << found.text() << found.is_cut() << " by " << found.origin->program
         << ' ' << found.origin->process << ' ' << found.origin->pointer_bits;
    // Of the program's name there is nothing that a terminal obeys.
    EXPECT_EQ(said.str(), "1 id 1020304 handle 5 to 6 status -2147483641 message 8/9 thread 10 xyz0 by a?[1m?? 10 5");
  }
  Maker cut = little().section().interface();
  add(cut, with(1, "xyz"), 1000);
  capture::File reader{std::span<const uint8_t>(cut.bytes)};
  const capture::Message *const message = reader.next();
  EXPECT_TRUE(message->is_cut());
  EXPECT_EQ(message->length, 1000u - 32);
  const struct {
    Bytes data;
    std::size_t cut_from;
    const char *said;
  } bad[] = {
      {with(3, ""), 0, ": packet 1: recorded in version 1.3 of the format, which is unknown here"},
      {with(2, "schema\n# quopa"), 200, ": packet 1: the schema is cut off"},
      {with(2, "schema\n# quopa schema 1\nx"), 0, ": packet 1: line 2 of the schema: "},
  };
  for (const auto &[data, cut_from, said] : bad) {
    Maker file = little().section().interface();
    add(file, data, cut_from);
    EXPECT_TRUE(read(file.bytes).starts_with(said)) << read(file.bytes);
  }
  Maker longer = little().section().interface();
  longer.block(6, little().u32(0).u32(0).u32(1).u32(40).u32(39).add(make_message(1, 8)).bytes);
  EXPECT_EQ(read(longer.bytes), ": packet 1: no message of the bus, so this is no trace of it");
}

TEST(CaptureFile, IsReadUpToWhereItIsCut) {
  Maker pcapng(false);
  pcapng.section().interface();
  const std::size_t headers = pcapng.bytes.size();
  std::vector<std::size_t> packet_ends;
  for (uint8_t i = 1; i < 4; ++i) packet_ends.push_back(pcapng.packet(i, make_message(i, i)).bytes.size());
  for (std::size_t size = 1; size < pcapng.bytes.size(); ++size) {
    std::string said;
    bool at_end = size == headers || size == 28;
    for (std::size_t i = 0; i < packet_ends.size() && packet_ends[i] <= size; ++i) {
      said += std::to_string(i + 1) + '@' + std::to_string(i + 1) + "000 ";
      at_end = packet_ends[i] == size;
    }
    const std::string read_before =
        read({pcapng.bytes.begin(), pcapng.bytes.begin() + static_cast<std::ptrdiff_t>(size)});
    if (at_end) {
      EXPECT_EQ(read_before, said) << size;
    } else {
      EXPECT_TRUE(read_before.starts_with(said + ": ") && read_before.ends_with("it ends in the middle of a block"))
          << size << ": " << read_before;
    }
  }
}

}  // namespace
