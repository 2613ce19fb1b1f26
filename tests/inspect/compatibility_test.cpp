// What a change to a type means for peers and for programs, one change at a time.
#include <gtest/gtest.h>

#include "describe/compatibility.h"

namespace {

using drix::describe::parse_schema;

constexpr char kOther[] = "p.other 0x2 fixed=32 compact=18..23 record=8 u32@0 u8@4\n";

std::string schema(const std::string &lines) { return "# quopa schema 1\n" + lines; }

// A type with the given record and slots, and two that it may embed.
std::string with(const std::string &record_and_slots) {
  return schema("p.m 0x1 variable compact=20.. record=" + record_and_slots + '\n' + kOther +
                "p.tlv 0x3 fixed=32 compact=18..23 record=8 u32@0 u8@4\n");
}

TEST(Compatibility, IsToldBySlot) {
  const struct {
    const char *before, *now, *said;
  } cases[] = {
      {"4 u8@0 u8@1", "4 u8@0 u8@1", ""},
      {"4 u8@0 u16@2", "4 u8@0 u8@2",
       "p.m slot 1: u16 became u8: wire incompatible: peers read a wrong value\n"
       "p.m slot 1: member changed its type: binary interface incompatible: new SONAME\n"},
      {"4 u32@0", "8 u32@0 u8@4",
       "p.m slot 1: u8 appended: wire compatible: peers see zero\n"
       "p.m: record of 4 bytes became 8: binary interface incompatible: new SONAME\n"},
      {"4 u8@0 u8@1", "4 u8@0", "p.m slot 1: u8 removed: wire compatible: peers see zero\n"},
      {"3 u8[3]@0", "6 u8[6]@0",
       "p.m slot 0: u8[3] became u8[6]: wire incompatible: peers reject the record\n"
       "p.m: record of 3 bytes became 6: binary interface incompatible: new SONAME\n"},
      {"8/16 u8[8]@0", "8/16 bytes@4/8",
       "p.m slot 0: u8[8] became bytes: wire incompatible: peers reject the record\n"
       "p.m slot 0: member moved from 0 to 4 (64-bit 8): binary interface incompatible: new SONAME\n"},
      {"8/16 bytes@4/8", "8/16 u8[8]@0",
       "p.m slot 0: bytes became u8[8]: wire incompatible: peers reject the record\n"
       "p.m slot 0: member moved from 4 (64-bit 8) to 0: binary interface incompatible: new SONAME\n"},
      {"8 table(tlv)@0", "8 table(other)@0",
       "p.m slot 0: table(tlv) became table(other): wire compatible: the bytes are the same\n"
       "p.m slot 0: member changed its type: binary interface incompatible: new SONAME\n"},
      {"8 table(tlv)@0", "8/16 vector(tlv)@4/8",
       "p.m slot 0: table(tlv) became vector(tlv): wire incompatible: peers read a wrong value\n"
       "p.m: record of 8 bytes became 8 (64-bit 16): binary interface incompatible: new SONAME\n"},
  };
  for (const auto &[before, now, said] : cases) {
    std::string text;
    bool compatible = true;
    for (const auto &difference : compare(parse_schema(with(before)), parse_schema(with(now)))) {
      text += difference.what + ": " + difference.consequence + '\n';
      compatible = compatible && difference.compatible;
    }
    EXPECT_EQ(text, said);
    EXPECT_EQ(compatible, text.find("incompatible") == std::string::npos) << text;
  }
}

TEST(Compatibility, TextIsReadBackAndBadTextRefusedWithItsLine) {
  const std::string today = to_text(drix::describe::current_schema());
  EXPECT_EQ(to_text(parse_schema(today)), today);
  const struct {
    std::string text;
    std::size_t line;
  } bad[] = {
      {"", 1},
      {"# quopa schema 2\n", 1},
      {schema(std::string(kOther) + kOther), 3},
      {schema("p.m 0x1 fixed=8 compact=1..2 record=1 u9@0\n"), 2},
      {schema("p.m 0x1 fixed=8 compact=1..2 record=1 u8@\n"), 2},
      {schema("p.m 0x1 fixed=8 compact=1..2 record=1 u8[99999999999]@0\n"), 2},
      {schema("p.m 0x1 fixed=8 compact=1..2 record=1 table(@0\n"), 2},
  };
  for (const auto &[text, line] : bad) {
    try {
      parse_schema(text);
      ADD_FAILURE() << "taken: " << text;
    } catch (const drix::describe::SchemaError &error) {
      EXPECT_EQ(error.line, line) << text;
    }
  }
}

}  // namespace
