#include "codec.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace reference {

namespace {

// Record members in host order, at any place.
uint32_t get(const void *record, size_t place, uint32_t width) {
  const auto *from = static_cast<const uint8_t *>(record) + place;
  if (width == 1) return *from;
  uint16_t half;
  uint32_t word;
  if (width == 2) return std::memcpy(&half, from, 2), half;
  return std::memcpy(&word, from, 4), word;
}

void set(void *record, size_t place, uint32_t width, uint32_t value) {
  records::store_number(static_cast<uint8_t *>(record) + place, width, value);
}

const uint8_t *inside(const void *record, const SlotInfo &slot) {
  return static_cast<const uint8_t *>(record) + slot.member;
}
uint8_t *inside(void *record, const SlotInfo &slot) { return static_cast<uint8_t *>(record) + slot.member; }

// The wire, byte by byte.
void put(Bytes &out, uint32_t value, uint32_t width) {
  for (uint32_t i = 0; i < width; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void put_at(Bytes &out, size_t at, uint32_t value, uint32_t width) {
  for (uint32_t i = 0; i < width; ++i) out[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t read(const uint8_t *buffer, uint32_t at, uint32_t width) {
  uint32_t value = 0;
  for (uint32_t i = 0; i < width; ++i) value |= uint32_t{buffer[at + i]} << (8 * i);
  return value;
}

uint32_t vtable_length(const records::Type &type) { return static_cast<uint32_t>(4 + 2 * type.slots.size()); }

bool in_compact_layout(const SlotInfo &slot, const void *record) {
  switch (slot.kind) {
    case Kind::scalar:
      return get(record, slot.member, slot.width) != 0;
    case Kind::array:
    case Kind::table:
      return true;
    default:
      return records::block_in(record, slot) != nullptr && records::length_in(record, slot) != 0;
  }
}

// Appends a table, vtable first, and returns the table's position.
uint32_t append_table(const records::Type &type, const void *record, Bytes &out) {
  const size_t vtable = out.size();
  out.resize(vtable + vtable_length(type));
  const size_t table = out.size();
  put(out, vtable_length(type), 4);
  std::vector<size_t> words(type.slots.size());
  const auto start_field = [&](size_t i) {
    words[i] = out.size();
    put_at(out, vtable + 4 + 2 * i, static_cast<uint32_t>(out.size() - table), 2);
  };
  const auto point = [&](size_t word, size_t target) { put_at(out, word, static_cast<uint32_t>(target - word), 4); };

  for (size_t i = 0; i < type.slots.size(); ++i) {
    const SlotInfo &slot = type.slots[i];
    if (slot.kind != Kind::scalar || !in_compact_layout(slot, record)) continue;
    start_field(i);
    put(out, get(record, slot.member, slot.width), slot.width);
  }
  for (size_t i = 0; i < type.slots.size(); ++i) {
    if (type.slots[i].kind == Kind::scalar || !in_compact_layout(type.slots[i], record)) continue;
    start_field(i);
    put(out, 0, 4);
  }
  for (size_t i = 0; i < type.slots.size(); ++i) {
    const SlotInfo &slot = type.slots[i];
    if (slot.kind == Kind::scalar || slot.kind == Kind::table || !in_compact_layout(slot, record)) continue;
    point(words[i], out.size());
    const uint32_t count = slot.kind == Kind::array ? slot.elements : records::length_in(record, slot);
    put(out, count, 4);
    words[i] = out.size();
    if (slot.kind == Kind::array) {
      for (uint32_t k = 0; k < count; ++k) put(out, get(record, slot.member + k * slot.width, slot.width), slot.width);
    } else if (slot.kind == Kind::bytes) {
      out.insert(out.end(), records::block_in(record, slot), records::block_in(record, slot) + count);
    } else {
      out.resize(out.size() + 4 * size_t{count});
    }
  }
  put_at(out, vtable, vtable_length(type), 2);
  put_at(out, vtable + 2, static_cast<uint32_t>(out.size() - table), 2);
  for (size_t i = 0; i < type.slots.size(); ++i) {
    const SlotInfo &slot = type.slots[i];
    if (slot.kind == Kind::table) point(words[i], append_table(*slot.inner, inside(record, slot), out));
  }
  for (size_t i = 0; i < type.slots.size(); ++i) {
    const SlotInfo &slot = type.slots[i];
    if (slot.kind != Kind::vector || !in_compact_layout(slot, record)) continue;
    for (uint32_t k = 0; k < records::length_in(record, slot); ++k) {
      point(words[i] + 4 * k,
            append_table(*slot.inner, records::block_in(record, slot) + k * slot.inner->record_size, out));
    }
  }
  return static_cast<uint32_t>(table);
}

void append_fixed(const records::Type &type, const void *record, Bytes &out, std::vector<bool> &written) {
  const auto emit = [&](uint32_t value, uint32_t width) {
    put(out, value, width);
    written.resize(out.size(), true);
  };
  const auto skip_to = [&](size_t position) {
    out.resize(position);
    written.resize(position, false);
  };
  const size_t start = out.size();
  const size_t table = start + 4;
  std::vector<uint32_t> offsets;
  emit(4, 4);
  emit(0, 4);
  for (const SlotInfo &slot : type.slots) {
    offsets.push_back(static_cast<uint32_t>(out.size() - table));
    if (slot.kind == Kind::table) {
      append_fixed(*slot.inner, inside(record, slot), out, written);
      continue;
    }
    if (slot.kind == Kind::array) {
      emit(4, 4);
      emit(slot.elements, 4);
    }
    for (uint32_t k = 0; k < records::numbers(slot); ++k)
      emit(get(record, slot.member + k * slot.width, slot.width), slot.width);
  }
  const size_t table_size = out.size() - table;
  const size_t vtable = table + (table_size + 3) / 4 * 4;
  skip_to(vtable);
  put_at(out, table, static_cast<uint32_t>(table - vtable), 4);
  emit(vtable_length(type), 2);
  emit(static_cast<uint32_t>(table_size), 2);
  for (const uint32_t offset : offsets) emit(offset, 2);
  skip_to(start + (out.size() - start + 7) / 8 * 8);
}

// One decoding of one buffer. 64-bit positions cannot wrap, so wrapping is asked for where it matters.
class Decoding {
 public:
  Decoding(const uint8_t *buffer, uint32_t length, Trace &trace, size_t failing_allocation)
      : buffer_(buffer), n_(length), trace_(trace), until_failure_(failing_allocation) {}

  // Finds a table's vtable.
  bool find_vtable(uint32_t table, const std::string &name, uint32_t &vtable) {
    const auto n = static_cast<uint32_t>(n_);
    if (table < 4 || table > n - 4) {
      log(22, name, "[QUOPA]:Table offset(%u) is out of range(4 - %u)", table, n);
      return false;
    }
    vtable = table - read(buffer_, table, 4);
    if (vtable < 4 || vtable > n - 4) {
      log(22, name, "[QUOPA]:Vtable offset(%u) is out of range(4 - %u)", vtable, n - 4);
      return false;
    }
    const uint32_t length = read(buffer_, vtable, 2);
    if (uint64_t{vtable} + length > n_) {
      log(22, name, "[QUOPA]:Vtable Len(%u) is out of range(0 - %u)", length, n - vtable);
      return false;
    }
    return true;
  }

  bool decode_slots(const records::Type &type, uint32_t table, uint32_t vtable, const std::string &name, void *record) {
    const uint32_t length = read(buffer_, vtable, 2);
    for (size_t i = 0; i < type.slots.size(); ++i) {
      if (length < 4 + 2 * (i + 1)) break;
      const uint32_t entry = read(buffer_, vtable + 4 + 2 * static_cast<uint32_t>(i), 2);
      if (entry != 0 && !decode_slot(type.slots[i], table + entry, name, record)) return false;
    }
    return true;
  }

  void log(uint32_t code, const std::string &function, const char *format, ...) {
    char text[200];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    trace_.logs.push_back({code, function, text});
  }

 private:
  bool fits(uint64_t at, uint64_t size) const { return at + size <= n_; }

  bool follow(uint32_t word, uint64_t &target) const {
    if (!fits(word, 4)) return false;
    target = uint64_t{word} + read(buffer_, word, 4);
    return target <= 0xFFFFFFFF;
  }

  uint8_t *allocate(uint32_t size, const std::string &name) {
    trace_.allocations.push_back({size, name});
    if (until_failure_ != SIZE_MAX && until_failure_-- == 0) {
      log(12, name, "[QUOPA]:Malloc unpack data failed, size(%u)", size);
      return nullptr;
    }
    return static_cast<uint8_t *>(std::calloc(1, size));
  }

  bool decode_slot(const SlotInfo &slot, uint32_t p, const std::string &name, void *record) {
    if (slot.kind == Kind::scalar) {
      if (!fits(p, slot.width)) return false;
      set(record, slot.member, slot.width, read(buffer_, p, slot.width));
      return true;
    }
    uint64_t target;
    if (!follow(p, target)) return false;
    if (slot.kind == Kind::table) {
      return decode_non_root(*slot.inner, inside(record, slot), static_cast<uint32_t>(target));
    }
    if (!fits(target, 4)) return false;
    const auto q = static_cast<uint32_t>(target);
    const uint32_t count = read(buffer_, q, 4);
    const bool words = slot.kind == Kind::vector || slot.width == 4;
    if (slot.kind != Kind::bytes && words && count >= 0x40000000) return false;
    if (slot.kind == Kind::array) {
      if (count != slot.elements || !fits(q + 4, uint64_t{count} * slot.width)) return false;
      for (uint32_t k = 0; k < count; ++k) {
        set(record, slot.member + k * slot.width, slot.width, read(buffer_, q + 4 + k * slot.width, slot.width));
      }
      return true;
    }
    if (!fits(q + 4, slot.kind == Kind::bytes ? count : uint64_t{4} * count)) return false;
    set(record, slot.length_member, 4, count);
    if (count == 0) return true;
    const uint64_t size = slot.kind == Kind::bytes ? count : uint64_t{count} * slot.inner->record_size;
    if (size > 0xFFFFFFFF) return false;
    uint8_t *block = allocate(static_cast<uint32_t>(size), name);
    if (block == nullptr) return false;
    records::point(record, slot, block, count);
    if (slot.kind == Kind::bytes) {
      std::memcpy(block, buffer_ + q + 4, count);
      return true;
    }
    for (uint32_t k = 0; k < count; ++k) {
      uint64_t table;
      if (!follow(q + 4 + 4 * k, table)) return false;
      if (!decode_non_root(*slot.inner, block + k * slot.inner->record_size, static_cast<uint32_t>(table)))
        return false;
    }
    return true;
  }

  bool decode_non_root(const records::Type &type, void *record, uint32_t table) {
    const std::string name = type.prefix() + "_unpack_non_root";
    uint32_t vtable;
    if (!find_vtable(table, name, vtable)) return false;
    if (decode_slots(type, table, vtable, name, record)) return true;
    release(type, record, trace_);
    return false;
  }

  const uint8_t *buffer_;
  uint64_t n_;
  Trace &trace_;
  size_t until_failure_;
};

}  // namespace

Bytes pack(const records::Type &type, const void *record) {
  Bytes out(4);
  put_at(out, 0, append_table(type, record, out), 4);
  return out;
}

Bytes build_fixed(const records::Type &type, const void *record, std::vector<bool> *written) {
  Bytes out;
  std::vector<bool> marks;
  append_fixed(type, record, out, marks);
  if (written != nullptr) *written = marks;
  return out;
}

bool decode(const records::Type &type, const uint8_t *buffer, uint32_t length, void *record, Trace &trace,
            size_t failing_allocation) {
  const std::string name = type.prefix() + "_unpack";
  Decoding decoding(buffer, length, trace, failing_allocation);
  if (buffer == nullptr || record == nullptr || static_cast<int32_t>(length) < 4) {
    decoding.log(22, name, "[QUOPA]:Param invalid(%s, %d, %s)", buffer == nullptr ? "null" : "nonNull",
                 static_cast<int32_t>(length), record == nullptr ? "null" : "nonNull");
    return false;
  }
  const uint32_t table = read(buffer, 0, 4);
  uint32_t vtable;
  if (!decoding.find_vtable(table, name, vtable)) return false;
  std::memset(record, 0, type.record_size);
  if (decoding.decode_slots(type, table, vtable, name, record)) return true;
  release(type, record, trace);
  return false;
}

void release(const records::Type &type, void *record, Trace &trace) {
  for (const SlotInfo &slot : type.slots) {
    if (slot.kind == Kind::table) release(*slot.inner, inside(record, slot), trace);
    if (slot.kind != Kind::bytes && slot.kind != Kind::vector) continue;
    if (records::block_in(record, slot) != nullptr) {
      const size_t size = records::length_in(record, slot) * (slot.kind == Kind::bytes ? 1 : slot.inner->record_size);
      std::free(records::block_in(record, slot));
      trace.frees.push_back({static_cast<uint32_t>(size), type.prefix() + "_free_unpacked"});
    }
    records::point(record, slot, nullptr, records::length_in(record, slot));
  }
}

}  // namespace reference
