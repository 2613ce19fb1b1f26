// Schemas of anybody: what no library can have is refused where it stands, and what is taken can be told by its bounds.
#include "describe/catalog.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using drix::describe::Catalog;
using drix::describe::parse_schema;

struct Line {
  std::string name, slots;
};

// A type a line, with IDs from 1; the slots without their places.
std::string schema(const std::vector<Line> &types) {
  std::string text = "# quopa schema 1\n";
  int id = 0;
  for (const auto &[name, slots] : types) {
    text += name + " 0x" + std::to_string(++id) + " variable compact=8.. record=8";
    std::istringstream words(slots);
    for (std::string slot; words >> slot;) text += ' ' + slot + "@0";
    text += '\n';
  }
  return text;
}

std::string times(int count, const std::string &slot) {
  std::string slots;
  while (count-- > 0) slots += slot + ' ';
  return slots;
}

// "LINE: WHAT", or nothing where the schema is taken.
std::string refusal(const std::string &text) {
  try {
    const Catalog catalog(parse_schema(text));
    return {};
  } catch (const drix::describe::SchemaError &error) {
    return std::to_string(error.line) + ": " + error.what();
  }
}

TEST(Catalog, RefusesWhatNoRecordCanBe) {
  const std::string longest(63, 'n');
  const struct {
    std::vector<Line> types;
    std::string said;  // how it begins; empty: the schema is taken
  } cases[] = {
      {{{"p.a", "u8 u16 u32 u8[1] u32[4] bytes"}}, ""},
      {{{"p.a", "u8 u8 u16[2]"}}, "2: slot 2: an array of u8 or u32 is wanted at \"2]@0\""},
      {{{"p.a", "u8[0]"}}, "2: slot 0: an array of 1 to 65535 elements"},
      {{{"p.a", "u8[65535]"}}, ""},
      {{{"p.a", "u8[65536]"}}, "2: slot 0: an array of 1 to 65535 elements"},
      {{{"p.a", "u8"}, {"p.b", "u64"}}, "3: slot 0: after a width of 8, 16 or 32 bits"},
      {{{"p.a", ""}}, "2: slot 0: "},
      {{{"p.a", times(48, "u8")}}, ""},
      {{{"p.a", times(49, "u8")}}, "2: slot 48: the line's end is wanted"},
      // Names.
      {{{"a", "u8"}}, "2: \".\" is wanted"},
      {{{"p.1", "u8"}}, "2: a name of C is wanted"},
      {{{"p.a-b", "u8"}}, "2: "},
      {{{"p.a.b", "u8"}}, "2: "},
      {{{"p.\xC3\xA9", "u8"}}, "2: a name of C is wanted"},
      {{{longest + '.' + longest, "u8"}}, ""},
      {{{"p." + longest + 'n', "u8"}}, "2: a name of C is wanted"},
      {{{"p.a", "u8"}, {"p.b", "table(p.a)"}}, "3: slot 0: \")\" is wanted"},
      // Nesting, whichever of the types comes first.
      {{{"p.a", "table(b) vector(c)"}, {"p.b", "u8 bytes"}, {"p.c", "u8"}}, ""},
      {{{"p.a", "u8 table(b)"}}, "2: slot 1: p.b is missing"},
      {{{"p.a", "u8"}, {"q.b", "table(a)"}}, "3: slot 0: q.a is missing"},
      {{{"p.a", "table(a)"}}, "2: slot 0: p.a is missing or holds tables"},
      {{{"p.a", "u8"}, {"p.b", "u8 table(a)"}, {"p.c", "u8 u8 table(b)"}}, "4: slot 2: p.b is missing or holds tables"},
      {{{"p.a", "vector(b)"}, {"p.b", "vector(c)"}, {"p.c", "u8"}}, "2: slot 0: p.b is missing or holds tables"},
      {{{"p.a", "u8 vector(b)"}, {"p.b", "u8 bytes"}}, "2: slot 1: p.b owns memory and is no element"},
      // Sizes of records, and what a message may ask for.
      {{{"p.a", "u8[65000] u8[535]"}}, ""},
      {{{"p.a", "u8[65000] u8[536]"}}, "2: slot 1: the record has more than 65535 bytes"},
      {{{"p.a", "u8 table(b) table(b)"}, {"p.b", "u8[32768]"}}, "2: slot 2: the record has more than 65535 bytes"},
      {{{"p.a", "u32[65535]"}}, "2: slot 0: the record has more than 65535 bytes"},
      {{{"p.a", "vector(b)"}, {"p.b", "u8[1024]"}}, ""},
      {{{"p.a", "vector(b)"}, {"p.b", "u8[1025]"}}, "2: slot 0: records would take more than 256 times"},
      {{{"p.a", "vector(b) bytes vector(b)"}, {"p.b", "u8[511]"}}, "2: slot 2: records would take more than 256 times"},
      {{{"p.a", times(5, "table(b)") + times(16, "bytes")}, {"p.b", times(48, "bytes")}}, ""},
      {{{"p.a", times(5, "table(b)") + times(17, "bytes")}, {"p.b", times(48, "bytes")}}, "2: slot 21: records would"},
  };
  for (const auto &[types, said] : cases) {
    const std::string got = refusal(schema(types));
    EXPECT_EQ(got.substr(0, said.size()), said) << schema(types).substr(0, 400) << got;
    EXPECT_EQ(got.empty(), said.empty()) << schema(types).substr(0, 400) << got;
  }
  EXPECT_EQ(refusal(schema({{"p.a", "u8"}}) + "p.b 0x1 fixed=8 compact=8..8 record=1 u8@0\n"),
            "3: the ID is that of p.a");
}

TEST(Catalog, HasTheOwnTypesFromTheirSchemaToo) {
  const Catalog catalog(drix::describe::current_schema());
  for (const drix::describe::Type *own : Catalog::own().types()) {
    const drix::describe::Type *type = catalog.find(own->id);
    ASSERT_NE(type, nullptr) << own->name();
    EXPECT_EQ(type->name(), own->name());
    ASSERT_EQ(type->slots.size(), own->slots.size());
    for (std::size_t i = 0; i < own->slots.size(); ++i) {
      EXPECT_EQ(kind_text(type->slots[i]), kind_text(own->slots[i])) << own->name() << " f" << i;
    }
  }
}

// Either takes a moment, as long as it takes time in proportion.
TEST(Catalog, TakesNoLongerThanTheSchemaIsLong) {
  std::string chain = "# quopa schema 1\n", apart = chain, held = "u8";
  for (int i = 1000000; i < 1200000; ++i) {
    const std::string name = 't' + std::to_string(i);
    const std::string start = "p." + name + " 0x" + std::to_string(i) + " variable compact=8.. record=8 ";
    chain += start + held + "@0\n";
    apart += start + (i == 1000000 ? "u8" : "table(t1000000)") + "@0\n";
    held = "table(" + name + ')';
  }
  EXPECT_EQ(refusal(chain), "4: slot 0: p.t1000001 is missing or holds tables itself");
  EXPECT_EQ(refusal(apart), "");
}

}  // namespace
