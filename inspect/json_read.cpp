#include <arpa/inet.h>

#include <nlohmann/json.hpp>
#include <set>

#include "describe/printable.h"
#include "inspect/digits.h"
#include "inspect/json.h"

namespace drix::inspect {
namespace {

using describe::shortened;
using describe::SlotInfo;
using describe::Type;
using nlohmann::json;

[[noreturn]] void fail(const std::string &path, const std::string &what) {
  throw JsonError((path.empty() ? "the record" : path) + ": " + what);
}

std::string short_text(const json &value) {
  return shortened(value.dump(-1, ' ', true, json::error_handler_t::replace));
}

// Refuses what no record has: values nested deeper than an element's array, and members given twice. Not as a callback
// of the parser, which then looks through all elements behind each.
class Guard final : public nlohmann::json_sax<json> {
 public:
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t &) override { return true; }
  bool string(string_t &) override { return true; }
  bool binary(binary_t &) override { return true; }
  bool start_object(std::size_t) override { return open(); }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(); }
  bool end_array() override { return close(); }

  bool key(string_t &name) override {
    if (!keys_.back().insert(name).second) fail(short_text(name), "given twice");
    return true;
  }

  bool parse_error(std::size_t, const std::string &, const json::exception &error) override {
    const std::string what = error.what();
    throw JsonError(shortened(what.substr(what.find("] ") + 2), 200));  // without the number that the library gives it
  }

 private:
  bool open() {
    constexpr std::size_t kDeepest = 4;
    if (keys_.size() == kDeepest) fail("", "nested too deep");
    keys_.emplace_back();
    return true;
  }

  bool close() {
    keys_.pop_back();
    return true;
  }

  std::vector<std::set<std::string>> keys_;  // of the objects that are open
};

json parse(std::string_view text) {
  Guard guard;
  json::sax_parse(text, &guard);
  return json::parse(text);
}

class Reader {
 public:
  Reader(Record &record, const Labels &labels) : record_(record), labels_(labels) {}

  void read_table(const json &object, const Type &type, uint8_t *record, const std::string &path) {
    if (!object.is_object()) fail(path, "an object is wanted, not " + short_text(object));
    std::set<std::size_t> given;
    for (const auto &[name, value] : object.items()) {
      const std::string member_path = path.empty() ? shortened(name) : path + '.' + shortened(name);
      const std::optional<std::size_t> slot = labels_.slot(type, name);
      if (!slot) fail(member_path, type.name() + " has no such member" + labels_.suggestion(type, name).text());
      if (!given.insert(*slot).second) fail(member_path, "given twice, as f" + std::to_string(*slot) + " and by label");
      read_member(value, type, *slot, record, member_path);
    }
  }

 private:
  void read_member(const json &value, const Type &type, std::size_t index, uint8_t *record, const std::string &path) {
    const SlotInfo &slot = type.slots[index];
    uint8_t *const to = record + slot.member;
    switch (slot.kind) {
      case Kind::scalar:
        return set_number(to, slot.width, read_scalar(value, slot.width, labels_.find(type, index), path));
      case Kind::array:
        return read_array(value, slot, to, path);
      case Kind::bytes:
        return read_bytes(value, slot, record, path);
      case Kind::table:
        return read_table(value, *slot.inner, to, path);
      case Kind::vector:
        return read_vector(value, slot, record, path);
    }
  }

  static uint32_t read_number(const json &value, uint32_t width, const std::string &path) {
    const uint32_t most = UINT32_MAX >> (32 - 8 * width);
    if (!value.is_number_unsigned() || value.get<uint64_t>() > most) {
      fail(path, "a whole number from 0 to " + std::to_string(most) + " is wanted, not " + short_text(value));
    }
    return value.get<uint32_t>();
  }

  static uint32_t read_scalar(const json &value, uint32_t width, const Label *label, const std::string &path) {
    if (!value.is_string() || label == nullptr || label->meaning.empty()) return read_number(value, width, path);
    const std::optional<uint32_t> number = label->value_of(value.get<std::string>());
    if (!number)
      fail(path, short_text(value) + (label->is_flags ? " has a letter" : " is a word") + " without a label");
    return *number;
  }

  void read_array(const json &value, const SlotInfo &slot, uint8_t *to, const std::string &path) {
    if (slot.width == 1 && value.is_string()) {
      const std::vector<uint8_t> bytes = read_hex(value, path);
      if (bytes.size() != slot.elements) fail_count(bytes.size(), slot.elements, "bytes", path);
      std::memcpy(to, bytes.data(), bytes.size());
    } else if (slot.is_address() && value.is_string()) {
      read_address(value, to, path);
    } else {
      if (!value.is_array()) fail(path, wanted(slot) + " is wanted, not " + short_text(value));
      if (value.size() != slot.elements) fail_count(value.size(), slot.elements, "elements", path);
      read_numbers(value, slot.width, to, path);
    }
  }

  static std::string wanted(const SlotInfo &slot) {
    const std::string numbers = "an array of " + std::to_string(slot.elements) + " numbers";
    if (slot.width == 1) return "hexadecimal text or " + numbers;
    return slot.elements == 4 ? "an IPv6 address or " + numbers : numbers;
  }

  [[noreturn]] static void fail_count(std::size_t count, std::size_t right, const char *of, const std::string &path) {
    fail(path, std::to_string(right) + ' ' + of + " are wanted, not " + std::to_string(count));
  }

  static void read_numbers(const json &array, uint32_t width, uint8_t *to, const std::string &path) {
    for (std::size_t i = 0; i < array.size(); ++i) {
      set_number(to + i * width, width, read_number(array[i], width, path + '[' + std::to_string(i) + ']'));
    }
  }

  static std::vector<uint8_t> read_hex(const json &value, const std::string &path) {
    const auto bytes = parse_hex(value.get_ref<const std::string &>());
    if (!bytes) fail(path, short_text(value) + " is not pairs of hexadecimal digits");
    return *bytes;
  }

  static void read_address(const json &value, uint8_t *to, const std::string &path) {
    uint32_t words[4];
    const auto &text = value.get_ref<const std::string &>();
    if (text.find('\0') != std::string::npos || inet_pton(AF_INET6, text.c_str(), words) != 1) {
      fail(path, short_text(value) + " is no IPv6 address");
    }
    for (std::size_t i = 0; i < 4; ++i) set_number(to + 4 * i, 4, ntohl(words[i]));
  }

  void read_bytes(const json &value, const SlotInfo &slot, uint8_t *record, const std::string &path) {
    if (!value.is_string() && !value.is_array()) {
      fail(path, "hexadecimal text or an array of numbers is wanted, not " + short_text(value));
    }
    std::vector<uint8_t> bytes;
    if (value.is_string()) {
      bytes = read_hex(value, path);
    } else {
      bytes.resize(value.size());
      read_numbers(value, 1, bytes.data(), path);
    }
    if (bytes.empty()) return;
    uint8_t *const block = attach(slot, record, bytes.size(), 1);
    std::memcpy(block, bytes.data(), bytes.size());
  }

  void read_vector(const json &value, const SlotInfo &slot, uint8_t *record, const std::string &path) {
    if (!value.is_array()) fail(path, "an array of objects is wanted, not " + short_text(value));
    if (value.empty()) return;
    uint8_t *element = attach(slot, record, value.size(), slot.inner->record_size);
    for (std::size_t i = 0; i < value.size(); ++i, element += slot.inner->record_size) {
      read_table(value[i], *slot.inner, element, path + '[' + std::to_string(i) + ']');
    }
  }

  // Makes a member point to a block for count elements.
  uint8_t *attach(const SlotInfo &slot, uint8_t *record, std::size_t count, std::size_t size) {
    uint8_t *const block = record_.allocate(count * size);
    set_member(record, slot.length_member, static_cast<uint32_t>(count));
    set_member(record, slot.member, block);
    return block;
  }

  Record &record_;
  const Labels &labels_;
};

}  // namespace

Record read_json(std::string_view text, const Type &type, const Labels &labels) {
  Record record(type);
  Reader(record, labels).read_table(parse(text), type, record.data(), "");
  return record;
}

}  // namespace drix::inspect
