#include "runtime/decode.h"

#include <cstring>

#include "runtime/reject.h"

namespace drix {
namespace {

void copy_values(uint32_t width, void *to, const uint8_t *from, uint32_t count) {
  if (width == 1) return copy_elements<uint8_t>(to, from, count);
  if (width == 2) return copy_elements<uint16_t>(to, from, count);
  copy_elements<uint32_t>(to, from, count);
}

// One table being decoded. Places in it count from its start; room is what lies between there and the buffer's end.
class TableDecoding {
 public:
  // function is the log name under which the table is decoded. The buffer has at least a word and at most INT32_MAX
  // bytes.
  TableDecoding(const Decoder &decoder, const char *function, const uint8_t *buffer, uint32_t length, void *record)
      : decoder_(decoder),
        services_(decoder.message->services->decoding),
        function_(function),
        buffer_(buffer),
        length_(length),
        record_(static_cast<uint8_t *>(record)) {}

  // Finds the table at a position of the buffer and its vtable; a place out of range is logged.
  [[nodiscard]] bool find(uint32_t position) {
    const uint32_t last = length_ - kWord;
    if (position < kWord || position > last) {
      reject_table_offset(services_, function_, position, length_);
      return false;
    }
    start_ = buffer_ + position;
    room_ = length_ - position;
    const uint32_t vtable = position - load_once<uint32_t>(start_);
    if (vtable < kWord || vtable > last) {
      reject_vtable_offset(services_, function_, vtable, last);
      return false;
    }
    vtable_length_ = load_once<uint16_t>(buffer_ + vtable);
    if (vtable_length_ > length_ - vtable) {
      reject_vtable_length(services_, function_, vtable_length_, length_ - vtable);
      return false;
    }
    entries_ = buffer_ + vtable + kVtableHeader;
    return true;
  }

  // Decodes the table that was found into a record of zeros, which is released when a slot is bad.
  [[nodiscard]] bool unpack() {
    for (uint32_t i = 0; i < decoder_.slots && vtable_length(i + 1) <= vtable_length_; ++i) {
      const uint32_t at = load_once<uint16_t>(entries_ + std::size_t{2} * i);
      if (at == 0 || unpack_slot(decoder_.shapes[i], at)) continue;
      if (decoder_.release != nullptr) decoder_.release(record_);
      return false;
    }
    return true;
  }

 private:
  bool holds(uint32_t at, uint32_t count) const { return at <= room_ && count <= room_ - at; }

  [[nodiscard]] bool unpack_slot(const SlotShape &slot, uint32_t at) {
    uint8_t *const member = record_ + slot.member;
    switch (slot.kind) {
      case Kind::scalar:
        if (!holds(at, slot.width)) return false;
        copy_values(slot.width, member, start_ + at, 1);
        return true;
      case Kind::array: {
        uint32_t elements;
        uint32_t count;
        if (!follow_to_count(at, elements, count)) return false;
        if (count != slot.elements || !holds(elements, count * slot.width)) return false;
        copy_values(slot.width, member, start_ + elements, count);
        return true;
      }
      case Kind::bytes:
        return unpack_bytes(slot, at);
      case Kind::table:
        return unpack_inner(*decoder_.inner[slot.inner].decoder, at, member);
      case Kind::vector:
        break;
    }
    return unpack_vector(slot, at);
  }

  // Follows an offset word to a count, which is read, and the elements behind it; false when the word or the count lies
  // outside the buffer. Buffers are shorter than 2^31 bytes, so that includes every addition that wraps.
  [[nodiscard]] bool follow_to_count(uint32_t word, uint32_t &elements, uint32_t &count) const {
    if (!holds(word, kWord)) return false;
    const uint32_t distance = load_once<uint32_t>(start_ + word);
    if (distance > room_ - word || !holds(word + distance, kWord)) return false;
    count = load_once<uint32_t>(start_ + word + distance);
    elements = word + distance + kWord;
    return true;
  }

  // Decodes the table behind an offset word into a record of whatever content.
  [[nodiscard]] bool unpack_inner(const Decoder &inner, uint32_t word, uint8_t *record) const {
    if (!holds(word, kWord)) return false;
    const uint32_t from = length_ - room_ + word;
    const uint32_t position = from + load_once<uint32_t>(start_ + word);
    if (position < from) return false;
    if (inner.read != nullptr && inner.read(buffer_, length_, position, record)) return true;
    std::memset(record, 0, inner.record_size);
    TableDecoding decoding(inner, inner.message->non_root_name(), buffer_, length_, record);
    return decoding.find(position) && decoding.unpack();
  }

  [[nodiscard]] bool unpack_bytes(const SlotShape &slot, uint32_t word) {
    uint32_t contents;
    uint32_t size;
    if (!follow_to_count(word, contents, size) || !holds(contents, size)) return false;
    set_length(slot, size);
    if (size == 0) return true;
    uint8_t *const block = allocate(slot, size);
    if (block == nullptr) return false;
    std::memcpy(block, start_ + contents, size);
    return true;
  }

  [[nodiscard]] bool unpack_vector(const SlotShape &slot, uint32_t word) {
    const InnerType &inner = decoder_.inner[slot.inner];
    const Decoder &element = *inner.decoder;
    uint32_t element_word;
    uint32_t count;
    if (!follow_to_count(word, element_word, count)) return false;
    if (count >= kCountLimit || !holds(element_word, kWord * count)) return false;
    set_length(slot, count);
    if (count == 0) return true;
    const uint64_t size = uint64_t{count} * element.record_size;
    if (size > UINT32_MAX) return false;
    uint8_t *record = allocate(slot, static_cast<uint32_t>(size));
    if (record == nullptr) return false;
    for (uint32_t i = 0; i < count; ++i) {
      if constexpr (kQuickReaders) {
        const uint32_t words = length_ - room_ + element_word + kWord * i;
        i += read_elements(*inner.element, buffer_, length_, words, count - i,
                           record + std::size_t{i} * element.record_size);
        if (i == count) break;
      }
      if (!unpack_inner(element, element_word + kWord * i, record + std::size_t{i} * element.record_size)) return false;
    }
    return true;
  }

  void set_length(const SlotShape &slot, uint32_t length) {
    std::memcpy(record_ + slot.length_member, &length, sizeof length);
  }

  // Allocates the block that a byte string or vector points to; a failure is logged.
  uint8_t *allocate(const SlotShape &slot, uint32_t size) {
    void *const block = svc_alloc(services_, size, function_);
    if (block == nullptr) report_failed_allocation(services_, function_, size);
    std::memcpy(record_ + slot.member, &block, sizeof block);
    return static_cast<uint8_t *>(block);
  }

  const Decoder &decoder_;
  Services &services_;
  const char *function_;
  const uint8_t *buffer_;
  uint32_t length_;
  uint8_t *record_;

  // Set by find().
  const uint8_t *start_ = nullptr;
  uint32_t room_ = 0;
  const uint8_t *entries_ = nullptr;
  uint32_t vtable_length_ = 0;
};

}  // namespace

uint32_t unpack_root(const Decoder &decoder, const uint8_t *buffer, uint32_t length, void *record) {
  Services &services = decoder.message->services->decoding;
  if (buffer == nullptr || record == nullptr || length < kWord || length > INT32_MAX) {
    reject_unpack_parameters(services, decoder.message->unpack_name(), buffer, length, record);
    return decoder.record_size;
  }
  TableDecoding decoding(decoder, decoder.message->unpack_name(), buffer, length, record);
  if (!decoding.find(load_once<uint32_t>(buffer))) return decoder.record_size;
  svc_bind_mem(services);
  std::memset(record, 0, decoder.record_size);
  static_cast<void>(decoding.unpack());  // what became of it shows in the record
  return decoder.record_size;
}

}  // namespace drix
