// Entries of tables as text and JSON.
#pragma once

#include <deque>
#include <ostream>
#include <string>
#include <vector>

#include "tools/quopa/tellings.h"

namespace quopa {

using drix::inspect::TableInfo;
using Table = drix::inspect::Table<Mark>;
using Row = Table::Row;

// Address and length as a prefix where the key begins with them; other members unless they are zero:
// "2001:db8::/32 f1=1024". With the labels of this version's types.
std::string key_text(const TableInfo &table, std::string_view key, const drix::inspect::Labels &labels);

// Which entries are asked for, by their keys. A key is words with blanks or commas between: ADDRESS or ADDRESS/LENGTH for
// keys that have such members, and terms on members, as for --where.
class KeyFilter {
 public:
  KeyFilter(const std::string &text, const drix::inspect::Tables &tables, const drix::inspect::Labels &labels);

  bool takes(const TableInfo &table, std::string_view key);

 private:
  struct Address {
    uint8_t bytes[16];
    std::optional<uint32_t> length;
  };
  struct Term {
    explicit Term(const std::string &word) : member(word.substr(0, word.find_first_of("=!<>"))), where(word) {}

    std::string member;
    drix::inspect::Where where;
  };

  bool fits(const TableInfo &table);

  const drix::inspect::Labels &labels_;
  std::vector<Address> addresses_;
  std::deque<Term> terms_;
};

// A member of an entry that differs between two.
struct Difference {
  std::string member;  // as for --where
  std::string from, to;
  bool is_json;  // of the texts: they are JSON as they are
};
std::vector<Difference> differences(const Row &from, const Row &to);

// Where lines of text tell it.
class Lines {
 public:
  Lines(const std::vector<std::string> &paths, Styles &styles);

  // "#12 08:56:40.123456 route_receiver 4711 <- "; with the capture's name where there are several. The same without a
  // direction, for the middle of a line.
  void begin(std::ostream &out, const Mark &mark) const;
  void show_packet(std::ostream &out, const Mark &mark) const;

  void show_key(std::ostream &out, const TableInfo &table, std::string_view key) const;
  void show_members(std::ostream &out, const Row &entry) const;  // that are not zero, but the key's
  void show(std::ostream &out, const std::vector<Difference> &differences) const;

  // What stands between the braces of an object.
  void begin_json(std::ostream &out, const Mark &mark) const;
  void show_key_json(std::ostream &out, const TableInfo &table, std::string_view key) const;
  void show_record_json(std::ostream &out, const Row &entry) const;
  void show_json(std::ostream &out, const std::vector<Difference> &differences) const;

 private:
  bool has_capture_;
  Styles &styles_;
};

// The conditions of --where, on entries as on the messages that add them.
class Conditions {
 public:
  Conditions(const SelectionOptions &options, Styles &styles);  // throws BadUsage

  bool hold(const Row &entry);
  void expect_fitting(const drix::inspect::Tables &tables);  // throws BadUsage

 private:
  Styles &styles_;
  drix::inspect::Where where_;
};

}  // namespace quopa
