#include <arpa/inet.h>

#include <array>

#include "inspect/digits.h"
#include "inspect/extent.h"
#include "inspect/json.h"

namespace drix::inspect {
namespace {

using describe::SlotInfo;
using describe::Type;

class Writer {
 public:
  Writer(std::ostream &out, const JsonStyle &style) : out_(out), style_(style) {}

  void write_root(const Type &type, const uint8_t *record, const Extent &extent) {
    out_ << '{';
    for (std::size_t i = 0; i < type.slots.size() && i < extent.root_slots; ++i) write_member(type, i, record);
    if (extent.root_slots < type.slots.size()) write_partial(type, extent, record);
    out_ << '}';
  }

 private:
  void write_name(const Type &type, std::size_t slot) {
    if (slot > 0) out_ << ',';
    out_ << '"' << style_.labels.name(type, slot) << "\":";
  }

  void write_member(const Type &type, std::size_t index, const uint8_t *record) {
    const SlotInfo &slot = type.slots[index];
    const Label *label = style_.labels.find(type, index);
    const uint8_t *const value = record + slot.member;
    write_name(type, index);
    switch (slot.kind) {
      case Kind::scalar:
        write_scalar(number_at(value, slot.width), label);
        break;
      case Kind::array:
        write_array(slot, value, label);
        break;
      case Kind::bytes:
        write_hex({member<const uint8_t *>(value, 0), member<uint32_t>(record, slot.length_member)});
        break;
      case Kind::table:
        write_table(*slot.inner, value, slot.inner->slots.size());
        break;
      case Kind::vector:
        out_ << '[';
        write_elements(slot, value, member<uint32_t>(record, slot.length_member));
        out_ << ']';
        break;
    }
  }

  void write_scalar(uint32_t value, const Label *label) {
    const std::string text = scalar_text(value, label);
    const bool is_number = label == nullptr || !label->text_of(value);
    is_number ? out_ << text : out_ << '"' << text << '"';
  }

  void write_array(const SlotInfo &slot, const uint8_t *value, const Label *label) {
    if (slot.width == 1) return write_hex({value, slot.elements});
    if (style_.shows_address(slot, label)) {
      out_ << '"' << address_text(value) << '"';
      return;
    }
    for (std::size_t i = 0; i < slot.elements; ++i) {
      out_ << (i == 0 ? '[' : ',') << number_at(value + i * slot.width, slot.width);
    }
    out_ << ']';
  }

  void write_hex(std::span<const uint8_t> bytes) {
    std::string text;
    append_hex(text, bytes);
    out_ << '"' << text << '"';
  }

  void write_table(const Type &type, const uint8_t *record, std::size_t slots) {
    out_ << '{';
    for (std::size_t i = 0; i < slots; ++i) write_member(type, i, record);
    out_ << '}';
  }

  void write_elements(const SlotInfo &slot, const uint8_t *pointer, std::size_t count) {
    const auto *const first = member<const uint8_t *>(pointer, 0);
    for (std::size_t i = 0; i < count; ++i) {
      if (i > 0) out_ << ',';
      write_table(*slot.inner, first + i * slot.inner->record_size, slot.inner->slots.size());
    }
  }

  // The slot in which decoding ended.
  void write_partial(const Type &type, const Extent &extent, const uint8_t *record) {
    const SlotInfo &slot = type.slots[extent.root_slots];
    const uint8_t *const value = record + slot.member;
    if (slot.kind == Kind::table && extent.has_inner) {
      write_name(type, extent.root_slots);
      write_table(*slot.inner, value, extent.inner_slots);
    } else if (slot.kind == Kind::vector && (extent.has_inner || extent.elements > 0)) {
      write_name(type, extent.root_slots);
      out_ << '[';
      write_elements(slot, value, extent.elements);
      if (extent.has_inner) {
        if (extent.elements > 0) out_ << ',';
        const auto *const first = member<const uint8_t *>(value, 0);
        write_table(*slot.inner, first + extent.elements * slot.inner->record_size, extent.inner_slots);
      }
      out_ << ']';
    }
  }

  std::ostream &out_;
  const JsonStyle &style_;
};

}  // namespace

std::string scalar_text(uint32_t value, const Label *label) {
  const std::optional<std::string> text = label == nullptr ? std::nullopt : label->text_of(value);
  return text ? *text : std::to_string(value);
}

std::string address_text(const uint8_t *words) {
  std::array<uint32_t, 4> network_order;
  for (uint32_t i = 0; i < 4; ++i) network_order[i] = htonl(number_at(words + std::size_t{4} * i, 4));
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, network_order.data(), text, sizeof text);
}

void write_json(std::ostream &out, const Type &type, const uint8_t *record, const JsonStyle &style,
                const Verdict *rejection) {
  Writer(out, style).write_root(type, record, rejection == nullptr ? Extent() : extent_of(*rejection));
}

}  // namespace drix::inspect
