// Goes through a buffer as the decoder does and tells everything that stands in it, and whether the decoder would
// accept it; if not, why, and which word of the buffer is to blame.
//
// The walk reads nothing outside the buffer, allocates an eighth of the buffer's size at most, and takes no longer than
// the decoder times a constant: a table that many elements share is walked for each of them.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "describe/type.h"

namespace drix::inspect {

// The way to a table of the buffer: the root, one embedded in it, or an element of one of its vectors.
struct TablePath {
  static constexpr uint32_t kNone = UINT32_MAX;

  const describe::Type *type;  // of the table
  uint32_t outer;              // slot of the root that holds the table; kNone: it is the root
  uint32_t element;            // of that slot's vector; kNone: it is no vector
};

enum class Thing : uint8_t {
  root_offset,
  distance,  // of a table from its vtable
  vtable_length,
  table_size,  // vtable entry that no decoder reads
  slot_entry,
  more_entries,  // the rest of a vtable, for slots that this version does not have
  scalar,
  offset_word,   // of a slot
  count,         // of an array's or vector's elements, or a byte string's length
  elements,      // all of an array or byte string
  element_word,  // a vector element's offset word
  unwritten,     // gaps that the fixed layout leaves
  unreferenced,  // bytes that nothing points to
  unreached      // bytes behind which a rejected buffer was not read on
};

struct Event {
  Thing thing;
  uint16_t slot;     // of the table's type, where the thing belongs to one
  uint32_t at;       // position in the buffer
  uint32_t size;     // bytes
  uint32_t value;    // of a thing that is one number
  uint32_t element;  // of an element_word
};

// Why the decoder would not accept a buffer.
enum class Reason : uint8_t {
  accepted,
  // These the decoder logs.
  length,           // fewer than 4 bytes or more than INT32_MAX
  table_position,   // a table outside the buffer
  vtable_position,  // a vtable outside the buffer
  vtable_length,    // a vtable reaching past the end
  // These it does not.
  slot_past_end,      // a scalar or offset word
  offset_wraps,       // an offset word past 2^32
  count_past_end,     // the count that an offset word leads to
  wrong_count,        // of an array
  elements_past_end,  // of an array, byte string or vector
  too_many_elements   // of a vector, for 4 GiB of memory
};

struct Verdict {
  Reason reason;
  TablePath path;   // the table to which the culprit belongs
  Event culprit;    // the word whose value the decoder did not take
  uint64_t target;  // what that word leads to
  uint32_t length;  // of the buffer

  bool accepted() const { return reason == Reason::accepted; }
  bool logged() const { return !accepted() && reason <= Reason::vtable_length; }
};

// Takes events of one table, several at a time. They come in the order of the decoder's reading: a table's distance and
// vtable, then its slots. The word that is not taken makes no event, unless the decoder reads it twice; it is the
// verdict's culprit. The bytes that are neither told then nor the culprit's come last, as the root's.
class Sink {
 public:
  virtual void take(const TablePath &path, std::span<const Event> events) = 0;

 protected:
  ~Sink() = default;
};

// sink may be null.
Verdict walk(const describe::Type &type, const uint8_t *buffer, uint32_t length, Sink *sink);

// In words, without the position.
std::string explain(const Verdict &verdict);

// f1[2].f3; empty for the root itself.
std::string path_text(const TablePath &path);
std::string path_text(const TablePath &path, uint32_t slot);

}  // namespace drix::inspect
