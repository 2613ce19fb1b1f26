// Messages of random types that the library does not have, good and damaged, read by the schema that a capture would
// bring along: a simple model says whether each is accepted, what is shown of it and which conditions it fulfils.
//
//   foreign SCHEMAS MESSAGES [SEED]    MESSAGES for each of SCHEMAS
#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>

#include "codec.h"
#include "inspect/where.h"
#include "tools/quopa/show.h"

namespace {

using drix::inspect::JsonStyle;
using drix::inspect::Where;
using records::Kind;
using records::Random;
using records::Type;
using reference::Bytes;
using reference::SlotInfo;

// Types without tables, of which the first own nothing, then types that hold them; in the order of their names, which
// puts the latter in front.
class Schema {
 public:
  Schema(unsigned number, Random &random) : package_("p" + std::to_string(number)) {
    constexpr uint32_t kPlain = 2, kFlat = 3;
    for (uint32_t i = 0; i < kFlat; ++i) {
      Slots slots(random);
      while (slots.want_more()) slots.add_flat(i >= kPlain);
      add("t" + std::to_string(i), slots.text());
    }
    for (int i = 0; i < 2; ++i) {
      Slots slots(random);
      std::size_t memory = 0;  // for each 4 bytes of a message, of which a schema has its bound
      while (slots.want_more()) {
        const uint32_t way = random.below(6);
        const uint32_t inner = random.below(way == 0 ? kFlat : kPlain);
        const std::string name = 't' + std::to_string(inner);
        if (way == 1) memory += reference::find(package_, name).record_size;
        if (way == 0) {
          slots.add(name);
        } else if (way == 1 && memory <= 768) {
          slots.add(name + "[]");
        } else {
          slots.add_flat(random.below(8) == 0);
        }
      }
      add("h" + std::to_string(i), slots.text());
    }
    std::sort(types_.begin(), types_.end(), [](const Type *a, const Type *b) { return a->message < b->message; });
  }

  const Type &any(Random &random) const { return *types_[random.below(static_cast<uint32_t>(types_.size()))]; }

  std::string text() const {
    std::string text = "# quopa schema 1\n";
    for (const Type *type : types_) {
      char id[16];
      std::snprintf(id, sizeof id, " 0x%08X", type->id);
      text += type->name() + id + " variable compact=8.. record=8";
      for (const SlotInfo &slot : type->slots) text += ' ' + kind_text(slot) + "@0";
      text += '\n';
    }
    return text;
  }

 private:
  // The slots of a type, in the reference's words.
  class Slots {
   public:
    explicit Slots(Random &random)
        : random_(random), left_(random.below(10) == 0 ? 40 + random.below(9) : 1 + random.below(8)) {}

    bool want_more() const { return left_ > 0; }
    const std::string &text() const { return text_; }

    void add(const std::string &kind) {
      text_ += kind + ' ';
      --left_;
    }

    void add_flat(bool may_own) {
      static constexpr const char *kKinds[] = {"u8", "u16", "u32", "u32[4]", "u8[", "u32[", "bytes"};
      const uint32_t kind = random_.below(may_own ? 7 : 6);
      const bool is_array = kind == 4 || kind == 5;
      const uint32_t elements = random_.below(20) == 0 ? 50 : 1 + random_.below(6);
      add(is_array ? kKinds[kind] + std::to_string(left_ > 10 ? 1 : elements) + ']' : kKinds[kind]);
    }

   private:
    Random &random_;
    uint32_t left_;
    std::string text_;
  };

  void add(const std::string &message, const std::string &slots) {
    types_.push_back(&reference::add(package_, {message.c_str(), slots.c_str()}));
  }

  std::string package_;
  std::vector<const Type *> types_;
};

// What there is to tell of a record that was decoded.
class Model {
 public:
  Model(const Type &type, const Bytes &record, bool ipv6) : ipv6_(ipv6) { json_ = table("", type, record.data()); }

  const std::string &json() const { return json_; }

  std::string members() const {
    std::string text;
    for (std::size_t i = 0; i < members_.size() && i < 40; ++i) text += ' ' + members_[i];
    return members_.size() <= 40 ? text : text + " ... more";
  }

  // The numbers that a path like f1.f3 leads to, each in its table, like f1[2].
  struct Numbers {
    std::string path;
    std::string table;
    uint32_t value;
  };
  const std::vector<Numbers> &numbers() const { return numbers_; }

 private:
  std::string table(const std::string &path, const Type &type, const uint8_t *record) {
    std::string json;
    for (std::size_t i = 0; i < type.slots.size(); ++i) {
      const std::string name = 'f' + std::to_string(i);
      json += (i == 0 ? "\"" : ",\"") + name + "\":" + slot(path + name, type.slots[i], record);
    }
    return '{' + json + '}';
  }

  std::string slot(const std::string &path, const SlotInfo &slot, const uint8_t *record) {
    const uint8_t *const at = record + slot.member;
    if (slot.kind == Kind::table) return table(path + '.', *slot.inner, at);
    if (slot.kind == Kind::vector) {
      std::string json;
      for (uint32_t k = 0; k < records::length_in(record, slot); ++k) {
        const uint8_t *const element = records::block_in(record, slot) + k * slot.inner->record_size;
        json += (k == 0 ? "" : ",") + table(path + '[' + std::to_string(k) + "].", *slot.inner, element);
      }
      return '[' + json + ']';
    }
    if (slot.kind == Kind::bytes)
      return octets(path, records::block_in(record, slot), records::length_in(record, slot), true);
    if (slot.kind == Kind::array && slot.width == 1) return octets(path, at, slot.elements, false);
    return words(path, slot, at);
  }

  // Text has them up to the 32nd.
  std::string octets(const std::string &path, const uint8_t *bytes, std::size_t size, bool empty_is_zero) {
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
      text += digits;
    }
    const bool is_zero = empty_is_zero ? size == 0 : text.find_first_not_of('0') == std::string::npos;
    const std::string rest = size > 32 ? "...(" + std::to_string(size) + " bytes)" : "";
    if (!is_zero) members_.push_back(path + '=' + text.substr(0, 64) + rest);
    return '"' + text + '"';
  }

  std::string words(const std::string &path, const SlotInfo &slot, const uint8_t *at) {
    std::string list, condition_path;
    bool is_zero = true;
    for (std::size_t i = 0, end = 0; i < path.size(); i = end) {  // without [2]
      end = std::min(path.find('[', i), path.size());
      condition_path += path.substr(i, end - i);
      if (end < path.size()) end = path.find(']', end) + 1;
    }
    uint32_t network_order[4] = {};
    for (uint32_t i = 0; i < records::numbers(slot); ++i) {
      uint32_t value = 0;
      for (uint32_t k = 0; k < slot.width; ++k) {
        const uint32_t place = std::endian::native == std::endian::little ? slot.width - 1 - k : k;
        value = value << 8 | at[i * slot.width + place];
      }
      if (i < 4) network_order[i] = htonl(value);
      is_zero = is_zero && value == 0;
      list += (i == 0 ? "" : ",") + std::to_string(value);
      numbers_.push_back({condition_path, path.substr(0, path.rfind('.') + 1), value});
    }
    if (slot.kind == Kind::array) list = '[' + list + ']';
    char address[INET6_ADDRSTRLEN];
    const bool is_address = slot.kind == Kind::array && slot.elements == 4;
    if (is_address) inet_ntop(AF_INET6, network_order, address, sizeof address);
    if (!is_zero) members_.push_back(path + '=' + (is_address ? address : list));
    return is_address && ipv6_ ? '"' + std::string(address) + '"' : list;
  }

  bool ipv6_;
  std::string json_;
  std::vector<std::string> members_;
  std::vector<Numbers> numbers_;
};

Bytes random_message(const Type &type, Random &random) {
  records::Arena arena;
  Bytes record(type.record_size);
  const records::Mix mix = {
      .zeros = 25 * random.below(4), .most_bytes = random.below(8) == 0 ? 40u : 4u, .most_elements = random.below(6)};
  records::fill_random(type, record.data(), random, mix, arena);
  const bool fixed = type.is_fixed() && random.below(2) == 0;
  return fixed ? reference::build_fixed(type, record.data()) : reference::pack(type, record.data());
}

void damage(Bytes &message, Random &random) {
  const auto size = static_cast<uint32_t>(message.size());
  const uint32_t at = random.below(size);
  switch (random.below(4)) {
    case 0:
      message.resize(at);
      break;
    case 1:
      message[at] ^= static_cast<uint8_t>(1u << random.below(8));
      break;
    case 2:
      message[at] = static_cast<uint8_t>(random.below(size));
      break;
    default:
      message[at] = 0;
  }
}

// Two numbers of the record, or two beside them, are compared with what records have there, both in one element of a
// vector or each in any.
std::string judge_conditions(quopa::Look &look, const Model &model, Random &random) {
  const auto &numbers = model.numbers();
  if (numbers.empty()) return {};
  const struct {
    const char *sign;
    bool (*holds)(uint32_t, uint32_t);
  } signs[] = {
      {"=", [](uint32_t a, uint32_t b) { return a == b; }}, {"!=", [](uint32_t a, uint32_t b) { return a != b; }},
      {"<", [](uint32_t a, uint32_t b) { return a < b; }},  {"<=", [](uint32_t a, uint32_t b) { return a <= b; }},
      {">", [](uint32_t a, uint32_t b) { return a > b; }},  {">=", [](uint32_t a, uint32_t b) { return a >= b; }}};
  Where where;
  std::set<std::string> tables[2];  // in which each holds
  std::string outer[2], terms;
  for (std::size_t i = 0; i < 2; ++i) {
    const auto &asked = numbers[random.below(static_cast<uint32_t>(numbers.size()))];
    const auto &chosen = signs[random.below(6)];
    const uint32_t value = asked.value + random.below(2);
    const std::string term = asked.path + chosen.sign + std::to_string(value);
    where.add(drix::inspect::Term(term));
    terms += ' ' + term;
    outer[i] = asked.path.substr(0, asked.path.rfind('.') + 1);
    for (const Model::Numbers &number : numbers) {
      if (number.path == asked.path && chosen.holds(number.value, value)) tables[i].insert(number.table);
    }
  }
  const bool in_any = random.below(2) == 0;
  if (in_any) where.allow_any_element();
  const bool in_same = std::any_of(tables[0].begin(), tables[0].end(),
                                   [&](const std::string &table) { return tables[1].contains(table); });
  const bool expected = in_any || outer[0] != outer[1] ? !tables[0].empty() && !tables[1].empty() : in_same;
  const bool got = where.holds(*look.type(), look.record(), look.extent(), {}, &look.matches());
  return got == expected ? "" : terms + " is told wrong";
}

std::string differs(const std::string &what, const std::string &got, const std::string &expected) {
  return got == expected ? "" : what + " is\n  " + got + "\nand not\n  " + expected;
}

std::string judge_accepted(quopa::Look &look, const Model &model, const JsonStyle &style, Random &random) {
  std::ostringstream json, text, line_of_json;
  write_json(json, *look.type(), look.record(), style);
  show_text(text, look, style);
  show_json(line_of_json, look, style);
  const capture::Message &message = look.message();
  const std::string line_before =
      R"({"capture":"","packet":7,"time":1.000000002,"time_ns":"1000000002","program":"a \"program\\ ","process":3,"direction":"received","type":")" +
      look.type()->name() + "\",\"id\":" + std::to_string(message.id) +
      R"(,"handle":0,"destination":0,"status":0,"index":0,"count":1,"thread":0,"length":)" +
      std::to_string(message.length) + ",\"record\":";
  const std::string members = text.str().substr(text.str().find(" <- "));
  const auto again = drix::inspect::read_json(json.str(), *look.type(), style.labels);
  std::ostringstream json_again;
  write_json(json_again, *look.type(), again.data(), style);
  const std::string faults[] = {
      differs("JSON", json.str(), model.json()), differs("JSON read again", json_again.str(), model.json()),
      differs("the line of JSON", line_of_json.str(), line_before + model.json() + '}'),
      differs("text", members, " <- " + look.type()->name() + model.members()), judge_conditions(look, model, random)};
  for (const std::string &fault : faults) {
    if (!fault.empty()) return fault;
  }
  return {};
}

struct Counts {
  unsigned accepted = 0;
  unsigned refused = 0;
};

std::string judge(const Type &type, const capture::Origin &origin, const Bytes &payload, Random &random,
                  Counts &counts) {
  capture::Message message = {};
  message.packet = 7;
  message.time = 1000000002;
  message.kind = TRACE_RECEIVED;
  message.id = type.id;
  message.count = 1;
  message.length = static_cast<uint32_t>(payload.size());
  message.payload = payload;
  message.origin = &origin;
  quopa::Look look(message);
  if (look.type() == nullptr) return "no type";

  const uint8_t none = 0;
  Bytes record(type.record_size);
  reference::Trace trace;
  const bool accepted =
      reference::decode(type, payload.empty() ? &none : payload.data(), message.length, record.data(), trace);
  ++(accepted ? counts.accepted : counts.refused);
  std::string fault;
  if (accepted == look.is_rejected()) {
    fault = "the verdict is: " + explain(look.verdict());
  } else if (accepted) {
    const JsonStyle style = {.labels = {}, .ipv6 = random.below(2) == 0};
    fault = judge_accepted(look, Model(type, record, style.ipv6), style, random);
  } else {
    std::ostringstream shown;
    show_text(shown, look, {});
    if (shown.str().find(" REJECTED at ") == std::string::npos) fault = "no rejection in " + shown.str();
    show_json(shown, look, {});
  }
  if (accepted) reference::release(type, record.data(), trace);
  return fault;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) return 2;
  const unsigned long schemas = std::strtoul(argv[1], nullptr, 10);
  const unsigned long messages = std::strtoul(argv[2], nullptr, 10);
  const unsigned long seed = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 1;
  Random random(seed);
  Counts counts;
  for (unsigned i = 0; i < schemas; ++i) {
    const Schema schema(i, random);
    const drix::describe::Catalog catalog(drix::describe::parse_schema(schema.text()));
    capture::Origin origin;
    origin.program = "a \"program\\\t";
    origin.process = 3;
    origin.types = &catalog;
    for (unsigned long k = 0; k < messages; ++k) {
      const Type &type = schema.any(random);
      Bytes message = random_message(type, random);
      if (random.below(2) == 0) damage(message, random);
      const std::string fault = judge(type, origin, message, random, counts);
      if (fault.empty()) continue;
      std::printf("seed %lu, schema %u, message %lu of %s: %s\n%s", seed, i, k, type.prefix().c_str(), fault.c_str(),
                  schema.text().c_str());
      return 1;
    }
  }
  std::printf("seed %lu: %u accepted and %u refused messages agree\n", seed, counts.accepted, counts.refused);
  return counts.accepted > 0 && counts.refused > 0 ? 0 : 1;
}
