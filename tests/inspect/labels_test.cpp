// Files of labels: what they may not say, and what they say.
#include "inspect/labels.h"

#include <gtest/gtest.h>

#include "inspect/table.h"

namespace {

using drix::inspect::Label;
using drix::inspect::Labels;

const std::string kSection = "[fib6Sync.ipv6FwdKey]\n";  // u32 u32 u32[4] u8 u8[3]

TEST(Labels, RefuseWhatWouldNotBeUnderstood) {
  const struct {
    std::string file;
    std::size_t line;
    std::string said;
  } cases[] = {
      {"f0 = a", 1, "a section"},
      {"[no.such]", 1, "no type \"no.such\""},
      {"[fib6Sync.tlv", 1, "no type"},
      {kSection + "f0", 2, "MEMBER = NAME"},
      {kSection + "f5 = a", 2, "fib6Sync.ipv6FwdKey has no member \"f5\""},
      {kSection + "f00 = a", 2, "fib6Sync.ipv6FwdKey has no member \"f00\""},
      {kSection + "f0 = a.b", 2, "\"a.b\" is no name"},
      {kSection + "f0 = \x1b", 2, "\"\x1b\" is no name"},
      {kSection + "f0 =", 2, "\"\" is no name"},
      {kSection + "f0 = f1", 2, "\"f1\" is reserved"},
      {kSection + "f0 = f99", 2, "\"f99\" is reserved"},
      {kSection + "f0 = a\nf1 = a", 3, "\"a\" is a member already"},
      {kSection + "f0 = a\nf0 = b", 3, "f0 has a label already"},
      {kSection + "f0 = a other", 2, "\"other\" is neither"},
      {kSection + "# c\nf0 = a ipv6", 3, "ipv6 is for u32[4], and f0 is u32"},
      {kSection + "f4 = a ipv6", 2, "ipv6 is for u32[4], and f4 is u8[3]"},
      {kSection + "f2 = a ipv6 more", 2, "\"more\" behind ipv6"},
      {kSection + "f2 = a enum x=1", 2, "enum is for scalars"},
      {kSection + "f0 = a enum", 2, "no values"},
      {kSection + "f0 = a enum x", 2, "\"x\" is not WORD=NUMBER"},
      {kSection + "f0 = a enum x\"=1", 2, "\"x\"=1\" is not WORD=NUMBER"},
      {kSection + "f3 = a enum x=256", 2, "\"256\" is not a number from 0 to 255"},
      {kSection + "f0 = a enum x=0x100000000", 2, "\"0x100000000\" is not a number from 0 to 4294967295"},
      {kSection + "f0 = a enum x=1 y=1", 2, "\"y=1\" is there already"},
      {kSection + "f0 = a enum x=1 x=2", 2, "\"x=2\" is there already"},
      {kSection + "f0 = a flags UG=1", 2, "\"UG=1\" is not LETTER=NUMBER"},
      {kSection + "f0 = a flags \\=1", 2, "\"\\=1\" is not LETTER=NUMBER"},
      {kSection + "f0 = a flags U=1 N=0", 2, "\"N=0\" has no bit"},
      {kSection + "key", 2, "members are wanted"},
      {kSection + "key f9", 2, "fib6Sync.ipv6FwdKey has no member \"f9\""},
      {kSection + "key f0 f0", 2, "\"f0\" is there already"},
      {kSection + "key f0\nkey f1", 3, "fib6Sync.ipv6FwdKey has such a line already"},
      {kSection + "key f0=f1", 2, "\"f0=f1\" is no member"},
      {kSection + "key of fib6Sync.none f0=f0", 2, "no type \"fib6Sync.none\""},
      {kSection + "key of fib6Sync.ipv6Fwd f0", 2, "\"f0\" is not MEMBER=MEMBER"},
      {kSection + "key of fib6Sync.ipv6Fwd f0=f99", 2, "fib6Sync.ipv6Fwd has no member \"f99\""},
      {kSection + "key of fib6Sync.ipv6Fwd f0=f3", 2, "\"f0=f3\": u32 is not u32[4]"},
      {kSection + "adds f0", 2, "\"f0\" is neither table nor vector"},
      {"[fib6Sync.ipv6FwdDelMsg]\nkey f1", 2, "\"f1\" is table(ipv6FwdKey), not a number or several"},
      {"[fib6Sync.ipv6FwdDelMsg]\ndeletes f1 f0", 2, "\"f0\" belongs to no single entry"},
      {"[korBrokerFib6.nhp6UpdateMsg]\nadds f2 f1", 2, "\"f1\" belongs to no single entry"},
      {kSection + "f0 = a enum " + std::string(100, 'x'), 2, "\"xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx...\" is"},
  };
  for (const auto &[file, line, said] : cases) {
    try {
      const Labels labels(file);
      ADD_FAILURE() << "taken: " << file;
    } catch (const drix::inspect::LabelError &error) {
      EXPECT_EQ(error.line, line) << file;
      EXPECT_EQ(std::string(error.what()).substr(0, said.size()), said) << file;
    }
  }
}

TEST(Labels, OfTablesHaveAKey) {
  using drix::inspect::Tables;
  const struct {
    std::string file;
    std::string said;
  } cases[] = {
      {"[fib6Sync.nhp6VpnUpdateMsg]\nadds f1", "no members of fib6Sync.nhp6Vpn are said to be the key of its table"},
      {"[fib6Sync.ipv6Fwd]\nkey f3 f7", "no member of fib6Sync.ipv6FwdKey is said to be f7 of fib6Sync.ipv6Fwd,"},
      {"[fib6_cfg.query_comm_param]\nkey f0\nadds\napart f1", "fib6_cfg.query_comm_param owns memory,"},
  };
  for (const auto &[file, said] : cases) {
    try {
      const Tables tables{Labels(file)};
      ADD_FAILURE() << "taken: " << file;
    } catch (const drix::inspect::TableError &error) {
      EXPECT_EQ(std::string(error.what()).substr(0, said.size()), said) << file;
    }
  }
  const Labels labels("[fib6Sync.ipv6Fwd]\nf3 = key\nf4 = apart\nkey key apart # destination\n");
  EXPECT_EQ(Tables(labels).find(*drix::describe::find("fib6Sync.ipv6FwdDelMsg"))->key,
            (std::vector<std::size_t>{2, 3}));
}

TEST(Labels, GiveValuesWordsAndWordsValues) {
  const drix::describe::Type &type = *drix::describe::find("fib6Sync.ipv6FwdKey");
  const Labels labels(" ; a comment\r\n" + kSection +
                      "f0=state\tenum up=1 down=0x2 none=0\nf1 = flags flags G=6 U=1 ==0x80000000 \nf2 = to ipv6\n");
  const Label &state = *labels.find(type, 0), &flags = *labels.find(type, 1);
  EXPECT_TRUE(labels.find(type, 2)->ipv6);
  EXPECT_EQ(labels.find(type, 3), nullptr);
  EXPECT_EQ(labels.name(type, 1), "flags");
  EXPECT_EQ(labels.name(type, 3), "f3");
  EXPECT_EQ(labels.slot(type, "to"), 2u);
  EXPECT_EQ(labels.slot(type, "f2"), 2u);
  EXPECT_EQ(labels.slot(type, "f5"), std::nullopt);
  EXPECT_EQ(labels.slot(type, "from"), std::nullopt);
  const struct {
    const Label &label;
    uint32_t value;
    std::optional<std::string> text;
  } cases[] = {
      {state, 0, "none"},       {state, 1, "up"},         {state, 2, "down"}, {state, 3, std::nullopt},
      {flags, 0, ""},           {flags, 1, "U"},          {flags, 7, "GU"},   {flags, 0x80000006, "G="},
      {flags, 2, std::nullopt}, {flags, 9, std::nullopt},
  };
  for (const auto &[label, value, text] : cases) {
    EXPECT_EQ(label.text_of(value), text) << value;
    if (text.has_value()) {
      EXPECT_EQ(label.value_of(*text), value) << *text;
    }
  }
  EXPECT_EQ(flags.value_of("UG"), 7u);
  EXPECT_EQ(flags.value_of("UX"), std::nullopt);
  EXPECT_EQ(state.value_of("dow"), std::nullopt);
}

}  // namespace
