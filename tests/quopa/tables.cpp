// Captures with random updates and deletions of all types that have keys: what table, history and diff print of them is
// what a simple model says. Which members are the keys is typed in here once more.
//
//   tables CAPTURES [SEED]
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "capture/writer.h"
#include "codec.h"
#include "inspect/json.h"
#include "tools/quopa/command.h"

namespace {

using nlohmann::json;
using records::Kind;
using records::Random;
using records::SlotInfo;
using reference::Bytes;
using reference::Type;
using Numbers = std::vector<uint32_t>;

// A table: its record's type, update and deletion, the key's members in the record and in the deletion's key, and how
// many members of an update belong to an entry. Slot 1 of a message carries it; without an update the record is one.
struct Known {
  std::string package, record, update, deletion;
  Numbers key, deletion_key, apart;
  uint32_t members = 1;
};
constexpr uint64_t kStart = 1764061000000000000, kMicrosecond = 1000;
const std::string kSync = "fib6Sync", kBroker = "korBrokerFib6";
const std::vector<Known> kKnown = {
    {kSync, "ipv6Fwd", "ipv6FwdUpdateMsg", "ipv6FwdDelMsg", {3, 4, 0, 1}, {2, 3, 0, 1}, {}},
    {kSync, "ipv6PathMtu", "ipv6PathMtuUpdateMsg", "ipv6PathMtuDelMsg", {2, 0, 1}, {2, 0, 1}, {}},
    {kSync, "nhp6", "nhp6UpdateMsg", "nhp6DelMsg", {0}, {0}, {}},
    {kSync, "nhp6Group", "nhp6GroupUpdateMsg", "nhp6GroupDelMsg", {0, 1}, {0, 1}, {}},
    {kSync,
     "nhp6GroupNode",
     "nhp6GroupNodeUpdateMsg",
     "nhp6GroupNodeDelMsg",
     {0, 1, 2, 3, 4, 5, 6},
     {0, 1, 2, 3, 4, 5, 6},
     {}},
    {kSync, "nhp6Std", "nhp6StdUpdateMsg", "nhp6StdDelMsg", {0, 1, 2}, {0, 1, 2}, {}},
    {kSync, "srv6SrList", "srv6SrListUpdateMsg", "srv6SrListDelMsg", {0, 1, 2, 3}, {0, 1, 2, 3}, {}},
    {kBroker, "ipv6Fwd", "ipv6FwdUpdateMsg", "ipv6FwdDelMsg", {3, 4, 0, 1}, {2, 3, 0, 1}, {}},
    {kBroker, "ipv6PathMtu", "ipv6PathMtuUpdateMsg", "ipv6PathMtuDelMsg", {2, 0, 1}, {2, 0, 1}, {}},
    {kBroker, "nhp6", "nhp6UpdateMsg", "nhp6DelMsg", {0}, {0}, {}, 7},
    {kBroker, "nhp6Group", "nhp6GroupUpdateMsg", "nhp6GroupDelMsg", {0, 1}, {0, 1}, {}, 2},
    {kBroker, "srv6SrList", "srv6SrListUpdateMsg", "srv6SrListDelMsg", {0, 1, 2}, {0, 1, 3}, {}}};
constexpr char kLabels[] =
    "[fib6Sync.ipv6Fwd]\nkey f4 f3\napart f6 f13 # c\n[fib6Sync.nhp6Vpn]\nkey f1\n[fib6Sync.nhp6VpnUpdateMsg]\nadds "
    "f1\n"
    "[korBrokerFib6.pidState]\nkey f2\nadds\n";

std::vector<Known> known_tables(bool with_labels) {
  std::vector<Known> known = kKnown;
  if (with_labels) {
    known[0].key = {4, 3}, known[0].deletion_key = {3, 2}, known[0].apart = {6, 13};
    known.push_back({kSync, "nhp6Vpn", "nhp6VpnUpdateMsg", "", {1}, {}, {}});
    known.push_back({kBroker, "pidState", "", "", {2}, {}, {}});
  }
  std::sort(known.begin(), known.end(), [](const Known &a, const Known &b) {
    return std::tie(a.package, a.record) < std::tie(b.package, b.record);
  });
  return known;
}

uint32_t number(const SlotInfo &slot, const uint8_t *record, uint32_t i) {
  const uint8_t *const at = record + slot.member + std::size_t{i} * slot.width;
  return slot.width == 1   ? *at
         : slot.width == 2 ? drix::inspect::member<uint16_t>(at, 0)
                           : drix::inspect::member<uint32_t>(at, 0);
}

struct Entry {
  const Known *known;
  const Type *type;  // of the message
  Bytes message;     // with nothing but the entry
  uint64_t packet;
};
using Key = std::pair<std::size_t, Numbers>;  // of the table, and of the entry
using Entries = std::map<Key, Entry>;

// A path like f1.f3 or f2[0].f1, and what is there; without what is zero.
std::map<std::string, std::string> members(const Entry &entry) {
  std::map<std::string, std::string> found;
  const auto add = [&](const std::string &path, const drix::describe::Type &type, const uint8_t *record, bool carried) {
    for (uint32_t i = 0; i < type.slots.size(); ++i) {
      const SlotInfo &slot = type.slots[i];
      if (carried && std::count(entry.known->key.begin(), entry.known->key.end(), i) > 0) continue;
      const std::string bytes(reinterpret_cast<const char *>(record + slot.member), records::member_size(slot));
      if (bytes.find_first_not_of('\0') != std::string::npos) found[path + 'f' + std::to_string(i)] = bytes;
    }
  };
  if (entry.known->update.empty()) add("", *entry.type, entry.message.data(), true);
  for (uint32_t m = 1; !entry.known->update.empty() && m <= entry.known->members; ++m) {
    const SlotInfo &slot = entry.type->slots[m];
    const std::string path = 'f' + std::to_string(m);
    if (slot.kind == Kind::table) add(path + '.', *slot.inner, entry.message.data() + slot.member, m == 1);
    const uint32_t count = slot.kind == Kind::vector ? records::length_in(entry.message.data(), slot) : 0;
    if (m > 1 && count > 0) found[path] = std::to_string(count);
    for (uint32_t i = 0; i < count; ++i) {
      add(path + (m == 1 ? "." : '[' + std::to_string(i) + "]."), *slot.inner,
          records::block_in(entry.message.data(), slot) + i * slot.inner->record_size, m == 1);
    }
  }
  return found;
}

std::set<std::string> changed(const Entry &a, const Entry &b) {
  std::set<std::string> paths;
  const auto of_a = members(a), of_b = members(b);
  for (const auto &[path, bytes] : of_a) {
    if (of_b.count(path) == 0 || of_b.at(path) != bytes) paths.insert(path);
  }
  for (const auto &[path, bytes] : of_b) {
    if (of_a.count(path) == 0) paths.insert(path);
  }
  return paths;
}

std::string told(const std::string &what, uint64_t packet, const std::set<std::string> &paths = {}) {
  std::string text = what + ' ' + std::to_string(packet);
  for (const std::string &path : paths) text += ' ' + path;
  return text;
}

struct Teller {
  const char *program;
  uint32_t process;
  TraceKind kind;
  Entries entries;
  bool has_told = false;
};

class Model {
 public:
  Model(Random &random, const std::string &path, bool with_labels)
      : random_(random), known_(known_tables(with_labels)), writer_(path) {}

  // Up to this number.
  void run(unsigned messages) {
    for (; sent_ < messages; ++sent_) send(sent_);
    writer_.flush();
  }

  // The tables of tellers in the order in which they told first, and all in one: of what was received, unless nothing was.
  struct State {
    std::vector<Entries> tables;
    Entries merged;
  };
  State state() const {
    const auto is_received = [](const Teller *teller) { return teller->kind == TRACE_RECEIVED; };
    const bool received = std::any_of(order_.begin(), order_.end(), is_received);
    State state = {{}, merged_[received]};
    for (const Teller *teller : order_) {
      if (is_received(teller) == received) state.tables.push_back(teller->entries);
    }
    return state;
  }

  // What happened to each entry.
  const std::map<Key, std::vector<std::string>> &history() const { return history_; }
  const std::vector<Known> &known() const { return known_; }

 private:
  // Few keys, so that they meet.
  void draw_key(const drix::describe::Type &type, uint8_t *carried, const Numbers &key) {
    for (const uint32_t index : key) {
      const SlotInfo &slot = type.slots[index];
      for (uint32_t i = 0; i < records::numbers(slot); ++i) {
        records::store_number(carried + slot.member + i * slot.width, slot.width,
                              random_.below(20) == 0 ? 250 : random_.below(2));
      }
    }
  }

  Numbers key_of(const drix::describe::Type &type, const uint8_t *carried, const Numbers &key) const {
    Numbers numbers;
    for (const uint32_t index : key) {
      for (uint32_t i = 0; i < records::numbers(type.slots[index]); ++i)
        numbers.push_back(number(type.slots[index], carried, i));
    }
    return numbers;
  }

  void send(unsigned i) {
    const auto table = random_.below(static_cast<uint32_t>(known_.size()));
    const Known &known = known_[table];
    const bool deletes = !known.deletion.empty() && random_.below(3) == 0;
    const std::string &name = deletes ? known.deletion : known.update.empty() ? known.record : known.update;
    const Type &type = reference::find(known.package, name);
    arenas_.emplace_back();
    Bytes record(type.record_size);
    records::fill_random(type, record.data(), random_, {.zeros = 90, .most_elements = 3}, arenas_.back());
    Teller &teller = tellers_[random_.below(4) == 0 ? random_.below(3) : i / 16 % 3];

    std::vector<uint8_t *> carried = {record.data()};
    const drix::describe::Type *inner = &type;
    if (!known.update.empty()) {
      const SlotInfo &slot = type.slots[1];
      inner = slot.inner;
      carried.clear();
      const uint32_t count = slot.kind == Kind::table ? 1 : records::length_in(record.data(), slot);
      for (uint32_t k = 0; k < count; ++k) {
        carried.push_back(
            (slot.kind == Kind::table ? record.data() + slot.member : records::block_in(record.data(), slot)) +
            k * inner->record_size);
      }
    }
    const Numbers &key = deletes ? known.deletion_key : known.key;
    for (uint8_t *const at : carried) draw_key(*inner, at, key);

    const bool fixed = type.is_fixed() && random_.below(2) == 0;
    Bytes payload = fixed ? reference::build_fixed(type, record.data()) : reference::pack(type, record.data());
    capture::Message message = {};
    message.time = kStart + uint64_t{i} * kMicrosecond;
    message.kind = teller.kind;
    message.id = type.id;
    message.count = 1;
    message.length = static_cast<uint32_t>(payload.size());
    const uint32_t fate = random_.below(12);
    if (fate == 0) message.status = -1;
    if (fate == 1) message.status = TRACE_NO_ANSWER;
    if (fate == 2) payload.resize(payload.size() - 1);  // cut, or rejected
    if (fate == 2 && random_.below(2) == 0) message.length = static_cast<uint32_t>(payload.size());
    message.payload = payload;
    capture::Origin origin;
    origin.program = teller.program;
    origin.process = teller.process;
    message.origin = &origin;
    writer_.write(message);
    packet_ += i == 0 ? 3 : 1 + (last_ != &teller);
    last_ = &teller;
    if (fate == 0) return;
    if (fate == 2) {
      // The last byte may be one that nothing stands in.
      Bytes decoded(type.record_size);
      reference::Trace trace;
      const bool good = message.length == payload.size() &&
                        reference::decode(type, payload.data(), message.length, decoded.data(), trace);
      reference::release(type, decoded.data(), trace);
      if (!good) return;
    }
    if (!teller.has_told && !carried.empty()) order_.push_back(&teller);
    teller.has_told = teller.has_told || !carried.empty();
    for (const uint8_t *const at : carried) {
      const Key place = {table, key_of(*inner, at, key)};
      take(teller, place, deletes ? std::nullopt : std::optional(entry_of(known, type, *inner, record, at)));
    }
  }

  Entry entry_of(const Known &known, const Type &type, const drix::describe::Type &inner, const Bytes &record,
                 const uint8_t *at) {
    Entry entry = {&known, &type, record, packet_};
    if (known.update.empty()) return entry;
    std::memset(entry.message.data(), 0,
                type.slots[1].kind == Kind::vector ? type.slots[1].length_member : type.slots[1].member);
    uint8_t *own = entry.message.data() + type.slots[1].member;
    if (type.slots[1].kind == Kind::vector) {
      own = arenas_.back().allocate(inner.record_size);
      std::memcpy(own, at, inner.record_size);
      records::point(entry.message.data(), type.slots[1], own, 1);
    }
    for (const uint32_t index : known.apart)
      std::memset(own + inner.slots[index].member, 0, records::member_size(inner.slots[index]));
    return entry;
  }

  void take(Teller &teller, const Key &place, const std::optional<Entry> &entry) {
    const auto found = teller.entries.find(place);
    const bool is_there = found != teller.entries.end();
    std::string what;
    if (!entry) {
      what = told(is_there ? "deleted" : "deleted, but not known before", packet_);
    } else if (!is_there) {
      what = told("added", packet_);
    } else if (const auto paths = changed(found->second, *entry); !paths.empty()) {
      what = told("changed", packet_, paths);
    }
    if (!what.empty()) history_[place].push_back(what);
    for (Entries *entries : {&teller.entries, &merged_[teller.kind == TRACE_RECEIVED]}) {
      const auto former = entries->find(place);
      if (!entry) {
        entries->erase(place);
      } else if (former == entries->end() || !changed(former->second, *entry).empty()) {
        entries->insert_or_assign(place, *entry);
      }
    }
  }

  Random &random_;
  std::vector<Known> known_;
  capture::Writer writer_;
  std::deque<records::Arena> arenas_;
  Teller tellers_[3] = {{"p", 1, TRACE_SENT, {}}, {"q", 2, TRACE_RECEIVED, {}}, {"q", 3, TRACE_RECEIVED, {}}};
  unsigned sent_ = 0;
  const Teller *last_ = nullptr;
  uint64_t packet_ = 0;
  std::vector<const Teller *> order_;
  Entries merged_[2];  // of what was sent, and received
  std::map<Key, std::vector<std::string>> history_;
};

// What a command prints, a value a line.
template <class Options>
std::vector<json> printed(int command(const Options &), const Options &options) {
  std::ostringstream text;
  std::streambuf *const output = std::cout.rdbuf(text.rdbuf());
  std::streambuf *const errors = std::cerr.rdbuf(nullptr);
  command(options);
  std::cout.rdbuf(output);
  std::cerr.rdbuf(errors);
  std::cerr.clear();
  std::vector<json> values;
  std::istringstream lines(text.str());
  for (std::string line; std::getline(lines, line);) values.push_back(json::parse(line));
  return values;
}

std::string judge_entry(const json &value, const Model &model, const Key &key, const Entry &entry) {
  const Known &known = model.known()[key.first];
  if (value["table"] != known.package + '.' + known.record || value["packet"] != entry.packet ||
      value["type"] != entry.type->name())
    return "not";
  const auto record = drix::inspect::read_json(value["record"].dump(), *drix::describe::find(entry.type->name()), {});
  return records::first_difference(*entry.type, record.data(), entry.message.data());
}

std::string judge_table(const quopa::TableOptions &options, const Model &model, const Model::State &state) {
  const auto values = printed(quopa::table, options);
  auto value = values.begin();
  for (const Entries &entries : state.tables) {
    for (const auto &[key, entry] : entries) {
      if (value == values.end() || !value->contains("record")) return "an entry is missing in the table";
      const std::string fault = judge_entry(*value++, model, key, entry);
      if (!fault.empty()) return fault + " " + std::to_string(entry.packet) + " in the table: " + value[-1].dump();
    }
    if (value == values.end() || (*value++)["entries"] != entries.size()) return "the table has too many entries";
  }
  return value == values.end() ? "" : "there are too many tables";
}

std::string joined(const std::vector<std::string> &words) {
  std::string text;
  for (const std::string &word : words) text += word + '\n';
  return text;
}

std::set<std::string> names(const json &line) {
  std::set<std::string> names;
  if (line.contains("members"))
    for (const auto &[name, values] : line["members"].items()) names.insert(name);
  return names;
}

std::string judge_diff(const quopa::DiffOptions &options, const Entries &here, const Entries &there) {
  std::vector<std::string> expected, got;
  Entries all = here;
  all.insert(there.begin(), there.end());
  for (const auto &[key, either] : all) {
    const auto a = here.find(key), b = there.find(key);
    if (a == here.end() || b == there.end()) {
      expected.push_back(told(a == here.end() ? "missing here" : "missing there", either.packet));
    } else if (const auto paths = changed(a->second, b->second); !paths.empty()) {
      expected.push_back(told("differs", b->second.packet, paths));
    }
  }
  auto values = printed(quopa::diff, options);
  for (const json &value : values) {
    if (!value.contains("difference")) continue;
    got.push_back(told(value["difference"], value[value.contains("there") ? "there" : "here"]["packet"], names(value)));
  }
  if (values.back()["here"] != here.size() || values.back()["there"] != there.size())
    return "the sums of diff are others";
  return got == expected ? "" : "diff tells\n" + joined(got) + "and not\n" + joined(expected);
}

// Where a member stands in a key, as numbers; an empty range when it is not in it.
struct Part {
  const SlotInfo *slot = nullptr;
  std::size_t place = 0;  // in the key
  Numbers numbers;
};
std::vector<Part> parts(const Known &known, const Key &key) {
  std::vector<Part> parts;
  auto from = key.second.begin();
  for (const uint32_t index : known.key) {
    const SlotInfo &slot = reference::find(known.package, known.record).slots[index];
    const auto to = from + records::numbers(slot);
    parts.push_back({&slot, index, {from, to}});
    from = to;
  }
  return parts;
}

// A key as a user writes it, and which others it stands for too.
std::string judge_history(quopa::HistoryOptions options, const Model &model, Random &random) {
  auto asked = model.history().begin();
  std::advance(asked, random.below(static_cast<uint32_t>(model.history().size())));
  const auto is_address = [](const Part &part) { return part.slot->kind == Kind::array && part.slot->elements == 4; };
  const auto is_length = [](const Part &part) { return part.slot->kind == Kind::scalar && part.slot->width == 1; };
  const auto wanted = parts(model.known()[asked->first.first], asked->first);
  std::vector<std::function<bool(const std::vector<Part> &)>> words;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    if (!options.key.empty()) options.key += random.below(2) == 0 ? " " : ",";
    if (!is_address(wanted[i])) {
      options.key += 'f' + std::to_string(wanted[i].place) + '=' + std::to_string(wanted[i].numbers[0]);
      words.push_back([part = wanted[i]](const std::vector<Part> &key) {
        return std::any_of(key.begin(), key.end(), [&](const Part &other) {
          return other.place == part.place &&
                 std::count(other.numbers.begin(), other.numbers.end(), part.numbers[0]) > 0;
        });
      });
      continue;
    }
    std::string text = drix::inspect::address_text(reinterpret_cast<const uint8_t *>(wanted[i].numbers.data()));
    const bool has_length = i + 1 < wanted.size() && is_length(wanted[i + 1]) && random.below(2) == 0;
    const Part address = wanted[i];
    const uint32_t length = has_length ? wanted[i + 1].numbers[0] : 0;
    if (has_length && length <= 128) text += '/' + std::to_string(length);
    options.key += text;
    words.push_back([=](const std::vector<Part> &key) {
      const auto found = std::find_if(key.begin(), key.end(), is_address);
      if (found == key.end() || found->numbers != address.numbers) return false;
      if (!has_length || length > 128) return true;
      return found + 1 != key.end() && is_length(found[1]) && found[1].numbers[0] == length;
    });
    if (has_length) ++i;
  }
  std::multiset<std::string> expected;
  for (const auto &[key, events] : model.history()) {
    const auto has = parts(model.known()[key.first], key);
    if (std::all_of(words.begin(), words.end(), [&](const auto &word) { return word(has); }))
      expected.insert(joined(events));
  }
  std::map<std::string, std::vector<std::string>> got;
  for (const json &value : printed(quopa::history, options)) {
    if (value["event"] == "repeated") continue;
    got[value["table"].get<std::string>() + ' ' + value["key"].get<std::string>()].push_back(
        told(value["event"], value["packet"], names(value)));
  }
  std::multiset<std::string> found;
  for (const auto &[key, events] : got) found.insert(joined(events));
  std::string texts = "history " + options.key + " tells\n";
  for (const std::string &text : found) texts += text;
  texts += "and not\n";
  for (const std::string &text : expected) texts += text;
  return found == expected ? "" : texts;
}

std::string judge(Random &random, const std::string &path) {
  const bool with_labels = random.below(3) == 0;
  Model model(random, path + ".pcapng", with_labels);
  const unsigned half = 1 + random.below(60);
  model.run(half);
  const Model::State then = model.state();
  model.run(half + random.below(100));
  const Model::State now = model.state();
  quopa::SelectionOptions selection;
  selection.paths = {path + ".pcapng"};
  if (with_labels) selection.labels = path + ".labels";
  const std::string time = std::to_string(kStart + (half - 1) * kMicrosecond);
  std::string fault = judge_table({selection, "", true, false}, model, now);
  if (fault.empty()) fault = judge_table({selection, time, true, false}, model, then);
  if (fault.empty() && !model.history().empty()) fault = judge_history({selection, "", true, false}, model, random);
  if (fault.empty())
    fault = judge_diff({selection, path + ".pcapng@" + time, path + ".pcapng", true, false}, then.merged, now.merged);
  return fault;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return 2;
  const unsigned long captures = std::strtoul(argv[1], nullptr, 10);
  const unsigned long first = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1;
  const std::string path = std::filesystem::temp_directory_path() / ("tables." + std::to_string(getpid()));
  std::ofstream(path + ".labels") << kLabels;
  std::string fault;
  unsigned long seed = first;
  for (; seed < first + captures && fault.empty(); ++seed) {
    Random random(seed);
    fault = judge(random, path);
  }
  std::filesystem::remove(path + ".labels");
  std::filesystem::remove(path + ".pcapng");
  if (fault.empty()) {
    std::printf("%lu captures: table, history and diff agree\n", captures);
  } else {
    std::printf("seed %lu: %s\n", seed - 1, fault.c_str());
  }
  return fault.empty() ? 0 : 1;
}
