// Records as JSON and JSON as records. Either is the inverse of the other, whatever the style.
//
//   scalar                  a number, or the text that a label gives the value
//   u32[4]                  an array of numbers, or "2001:db8::1" where it is shown as an address
//   u32[N]                  an array of numbers
//   u8[N], byte strings     "0a0b0c"; an array of numbers is taken too
//   table, vector           an object, an array of objects
//
// Members are called f0, f1, ... or what a label says; a member that is not given is zero or empty.
#pragma once

#include <ostream>
#include <stdexcept>
#include <string_view>

#include "inspect/labels.h"
#include "inspect/record.h"
#include "inspect/walk.h"

namespace drix::inspect {

struct JsonStyle {
  Labels labels;
  bool ipv6 = false;  // show every u32[4] as an address

  // Whether an array of such a slot is shown as an address.
  bool shows_address(const describe::SlotInfo &slot, const Label *label) const {
    return slot.is_address() && (ipv6 || (label != nullptr && label->ipv6));
  }
};

// Writes one line, without its end. Of a record that was built from a rejected buffer, only what was decoded before.
void write_json(std::ostream &out, const describe::Type &type, const uint8_t *record, const JsonStyle &style,
                const Verdict *rejection = nullptr);

// A member's value as text, for scalars and u32[4].
std::string scalar_text(uint32_t value, const Label *label);
std::string address_text(const uint8_t *words);

// With the JSON path or the place in the text.
struct JsonError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Takes either name of a member and every form of a value. Throws JsonError.
Record read_json(std::string_view text, const describe::Type &type, const Labels &labels);

}  // namespace drix::inspect
