// Tables that messages keep. A message adds entries, or changes them, by their records, and deletes them by keys; the
// labels say which message types do, and which members are the key.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "inspect/hash.h"
#include "inspect/labels.h"
#include "inspect/record.h"

namespace drix::inspect {

// One of the tables, of records of a type. Types are known by those of this version, whichever a capture has.
struct TableInfo {
  const describe::Type *record;
  std::vector<std::size_t> key;  // members of the record, in the order in which they sort the entries
  uint8_t number = 0;            // in the order of the records' names
};

// How messages of a type tell of a table's entries.
struct Telling {
  const TableInfo *table;
  const describe::Type *message;
  const describe::Type *carried;     // what is in the message for each entry: the table's record, or a key
  std::vector<std::size_t> members;  // of the message: where that is, and what belongs to an entry beside it
  std::vector<std::size_t> key;      // of what is carried
  std::vector<std::size_t> apart;    // likewise
  bool deletes;
};

// Of labels that name no key, or a key by which nothing can be deleted.
struct TableError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Tables {
 public:
  explicit Tables(const Labels &labels);  // throws TableError
  Tables(const Tables &) = delete;
  Tables &operator=(const Tables &) = delete;

  // Null for messages that tell of no entries. Those of another version do if the key is there as in this one.
  const Telling *find(const describe::Type &message);

  // How messages of this version's types tell.
  const std::unordered_map<const describe::Type *, Telling> &own() const { return own_; }

  // In the order of their numbers.
  const std::vector<const TableInfo *> &all() const { return all_; }

 private:
  const TableInfo &table_of(const describe::Type &record, const Labels &labels, const Labels &known);
  Telling make(const describe::Type &message, const Role &role, const Labels &labels, const Labels &known);

  std::unordered_map<const describe::Type *, TableInfo> tables_;
  std::vector<const TableInfo *> all_;
  std::unordered_map<const describe::Type *, Telling> own_;
  std::unordered_map<const describe::Type *, std::optional<Telling>> others_;
};

// Calls visit(carried) for each entry of which a message's record tells.
template <class Visit>
void for_each_told(const Telling &telling, const uint8_t *record, Visit visit) {
  if (telling.members.empty()) return visit(record);
  const describe::SlotInfo &slot = telling.message->slots[telling.members[0]];
  if (slot.kind == Kind::table) return visit(record + slot.member);
  const auto *const first = member<const uint8_t *>(record, slot.member);
  for (std::size_t i = 0; i < member<uint32_t>(record, slot.length_member); ++i) {
    visit(first + i * telling.carried->record_size);
  }
}

// The number of the table, then the members of the key in network order, so that keys sort as the members do.
void make_key(const Telling &telling, const uint8_t *carried, std::string &key);

// The table's record that a key is of, with nothing but the key.
Record record_of_key(const TableInfo &table, std::string_view key);

// All that belongs to an entry, without places in memory: the same bytes for the same members. What stands apart is zero.
void make_image(const Telling &telling, const uint8_t *record, const uint8_t *carried, std::string &image);

// The message with this entry alone. What does not belong to an entry is zero.
Record message_of(const Telling &telling, std::string_view image);

// What is carried in such a message.
const uint8_t *carried_in(const Telling &telling, const uint8_t *record);

enum class Effect : uint8_t {
  added,
  changed,
  kept,  // it was there as it is
  deleted,
  missed,  // it was not there
};

// The entries of tables by their keys, with a mark of the user's that says when each was changed last.
template <class Mark>
class Table {
 public:
  struct Row {
    const Telling *telling = nullptr;  // null: taken out
    Mark changed = {};
    std::string bytes = {};  // the key and the image
    std::size_t key_size = 0;

    std::string_view key() const { return std::string_view(bytes).substr(0, key_size); }
    std::string_view image() const { return std::string_view(bytes).substr(key_size); }
  };

  Effect take(const Telling &telling, std::string_view key, std::string_view image, const Mark &mark) {
    if (2 * (size_ + 1) > slots_.size()) grow();
    const auto tag = static_cast<uint32_t>(Hasher()(key));
    const std::size_t place = find(key, tag);
    const bool is_there = slots_[place] != 0;
    if (telling.deletes) {
      if (!is_there) return Effect::missed;
      take_out(place);
      return Effect::deleted;
    }
    if (!is_there) slots_[place] = uint64_t{tag} << 32 | (new_row() + 1);
    Row &row = row_at(place);
    if (is_there && row.telling == &telling && row.image() == image) return Effect::kept;
    row.telling = &telling;
    row.changed = mark;
    row.bytes.reserve(key.size() + image.size());
    row.bytes.assign(key).append(image);
    row.key_size = key.size();
    return is_there ? Effect::changed : Effect::added;
  }

  std::size_t size() const { return size_; }

  // In the order of keys.
  std::vector<const Row *> sorted() const {
    std::vector<std::pair<uint64_t, const Row *>> order;  // with the first bytes of the key, which settle most
    order.reserve(size_);
    for (const Row &row : rows_) {
      if (row.telling != nullptr) order.emplace_back(first_bytes(row.key()), &row);
    }
    std::sort(order.begin(), order.end(), [](const auto &a, const auto &b) {
      return a.first != b.first ? a.first < b.first : a.second->key() < b.second->key();
    });
    std::vector<const Row *> rows;
    rows.reserve(size_);
    for (const auto &[first, row] : order) rows.push_back(row);
    return rows;
  }

 private:
  static uint64_t first_bytes(std::string_view key) {
    uint64_t bytes = 0;
    for (std::size_t i = 0; i < sizeof bytes; ++i)
      bytes = bytes << 8 | (i < key.size() ? static_cast<uint8_t>(key[i]) : 0);
    return bytes;
  }

  Row &row_at(std::size_t place) { return rows_[static_cast<uint32_t>(slots_[place]) - 1]; }

  // Where the key is, or where it goes.
  std::size_t find(std::string_view key, uint32_t tag) {
    std::size_t place = tag & (slots_.size() - 1);
    while (slots_[place] != 0 && (slots_[place] >> 32 != tag || row_at(place).key() != key)) {
      place = (place + 1) & (slots_.size() - 1);
    }
    return place;
  }

  uint32_t new_row() {
    ++size_;
    if (free_.empty()) {
      rows_.emplace_back();
      return static_cast<uint32_t>(rows_.size() - 1);
    }
    const uint32_t row = free_.back();
    free_.pop_back();
    return row;
  }

  void take_out(std::size_t place) {
    row_at(place) = {};
    free_.push_back(static_cast<uint32_t>(slots_[place]) - 1);
    --size_;
    // What stands behind moves up, unless it is where its search begins or behind that.
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t next = (place + 1) & mask; slots_[next] != 0; next = (next + 1) & mask) {
      const std::size_t home = (slots_[next] >> 32) & mask;
      if (((next - home) & mask) < ((next - place) & mask)) continue;
      slots_[place] = slots_[next];
      place = next;
    }
    slots_[place] = 0;
  }

  void grow() {
    std::vector<uint64_t> former(slots_.empty() ? 16 : 2 * slots_.size());
    former.swap(slots_);
    for (const uint64_t slot : former) {
      std::size_t place = (slot >> 32) & (slots_.size() - 1);
      if (slot == 0) continue;
      while (slots_[place] != 0) place = (place + 1) & (slots_.size() - 1);
      slots_[place] = slot;
    }
  }

  std::deque<Row> rows_;
  std::vector<uint32_t> free_;   // rows that were taken out
  std::vector<uint64_t> slots_;  // by the hash: its lower half, and the row's number from 1; 0: none
  std::size_t size_ = 0;
};

}  // namespace drix::inspect
