#include "runtime/decode.h"

#include <array>
#include <cstring>

#include "runtime/reject.h"

namespace drix {
namespace {

// Entries of a vtable that was written for fewer slots than the type has now.
using ShortVtable = std::array<uint8_t, 2 * kMaxSlots>;

[[nodiscard]] bool find_table(Table &table, const Decoder &decoder, uint32_t position, ShortVtable &shortened) {
  Services &services = decoder.message->services->decoding;
  const uint32_t n = table.length;
  if (position < kWord || position > n - kWord) {
    reject_table_offset(services, table.function, position, n);
    return false;
  }
  const uint32_t vtable = position - load<uint32_t>(table.buffer + position);
  if (vtable < kWord || vtable > n - kWord) {
    reject_vtable_offset(services, table.function, vtable, n - kWord);
    return false;
  }
  const uint32_t size = load<uint16_t>(table.buffer + vtable);
  if (size > n - vtable) {
    reject_vtable_length(services, table.function, size, n - vtable);
    return false;
  }
  table.start = table.buffer + position;
  table.room = n - position;
  table.entries = table.buffer + vtable + kVtableHeader;
  if (size < vtable_length(decoder.slots)) {
    const uint32_t present = size < kVtableHeader ? 0 : (size - kVtableHeader) / 2;
    shortened.fill(0);
    std::memcpy(shortened.data(), table.entries, 2 * std::size_t{present});
    table.entries = shortened.data();
  }
  return true;
}

// Allocates for the decoder at work and logs a failure.
void *allocate(const Table &table, Services &services, uint32_t size) {
  void *block = svc_alloc(services, size, table.function);
  if (block == nullptr) report_failed_allocation(services, table.function, size);
  return block;
}

}  // namespace

bool unpack_non_root(const Decoder &decoder, const uint8_t *buffer, uint32_t length, void *record, uint32_t position) {
  Table table = {.function = decoder.message->non_root_name, .buffer = buffer, .length = length};
  ShortVtable shortened;
  if (!find_table(table, decoder, position, shortened)) return false;
  if (decoder.unpack_slots(table, record)) return true;
  if (decoder.release != nullptr) decoder.release(record);
  return false;
}

uint32_t unpack_root(const Decoder &decoder, const uint8_t *buffer, uint32_t length, void *record) {
  Services &services = decoder.message->services->decoding;
  if (buffer == nullptr || record == nullptr || length < kWord || length > INT32_MAX) {
    reject_unpack_parameters(services, decoder.message->unpack_name, buffer, length, record);
    return decoder.record_size;
  }
  Table table = {.function = decoder.message->unpack_name, .buffer = buffer, .length = length};
  ShortVtable shortened;
  if (!find_table(table, decoder, load<uint32_t>(buffer), shortened)) return decoder.record_size;
  svc_bind_mem(services);
  std::memset(record, 0, decoder.record_size);
  if (!decoder.unpack_slots(table, record) && decoder.release != nullptr) decoder.release(record);
  return decoder.record_size;
}

bool unpack_bytes(const Table &table, Services &services, uint32_t word, uint32_t &length, uint8_t *&bytes) {
  uint32_t contents;
  uint32_t size;
  if (!table.follow_to_count(word, contents, size) || !table.holds(contents, size)) return false;
  length = size;
  if (size == 0) return true;
  void *block = allocate(table, services, size);
  if (block == nullptr) return false;
  bytes = static_cast<uint8_t *>(block);
  std::memcpy(bytes, table.start + contents, size);
  return true;
}

bool open_vector(const Table &table, Services &services, uint32_t word, uint32_t record_size, uint32_t &count,
                 void *&records, uint32_t &element_words) {
  uint32_t elements;
  if (!table.follow_to_count(word, element_words, elements)) return false;
  if (elements >= kCountLimit || !table.holds(element_words, kWord * elements)) return false;
  count = elements;
  if (elements == 0) return true;
  const uint64_t size = uint64_t{elements} * record_size;
  if (size > UINT32_MAX) return false;
  records = allocate(table, services, static_cast<uint32_t>(size));
  if (records == nullptr) return false;
  std::memset(records, 0, static_cast<std::size_t>(size));
  return true;
}

}  // namespace drix
