#include "runtime/element_masks.h"

#ifdef DRIX_HAS_MASKS

#include <immintrin.h>

#define DRIX_MASKS gnu::target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vbmi2,bmi2,popcnt")

namespace drix {
namespace {

template <class Vector, class T, std::size_t size>
[[gnu::always_inline]] inline const Vector *table(const std::array<T, size> &of) {
  static_assert(sizeof of == sizeof(Vector));
  return reinterpret_cast<const Vector *>(of.data());
}

// What a vtable and the distance to it say.
class MaskedHead {
 public:
  [[DRIX_MASKS, gnu::always_inline]] explicit MaskedHead(const ElementMasks &masks)
      : numbers_(_mm256_loadu_si256(table<__m256i>(masks.numbers))),
        fixed_(_mm256_loadu_si256(table<__m256i>(masks.fixed))),
        widths_(_mm_loadu_si128(table<__m128i>(masks.widths))),
        moving_(masks.moving),
        scalar_entries_(masks.scalar_entries) {}

  // Of a shape with these scalars, which take so many bytes.
  [[DRIX_MASKS, gnu::always_inline]] __m256i of(uint64_t there, uint32_t size) const {
    const auto numbers = static_cast<__mmask16>(there);
    const __m128i widths = _mm_maskz_mov_epi8(numbers, widths_);
    __m128i ends = widths;
    ends = _mm_add_epi8(ends, _mm_slli_si128(ends, 1));
    ends = _mm_add_epi8(ends, _mm_slli_si128(ends, 2));
    ends = _mm_add_epi8(ends, _mm_slli_si128(ends, 4));
    ends = _mm_add_epi8(ends, _mm_slli_si128(ends, 8));
    const __m128i places = _mm_maskz_add_epi8(numbers, _mm_sub_epi8(ends, widths), _mm_set1_epi8(kWord));
    const __m256i moved = _mm256_mask_add_epi16(fixed_, moving_, fixed_, _mm256_set1_epi16(static_cast<short>(size)));
    return _mm256_mask_permutexvar_epi8(moved, scalar_entries_, numbers_, _mm256_castsi128_si256(places));
  }

 private:
  __m256i numbers_;
  __m256i fixed_;
  __m128i widths_;
  __mmask16 moving_;
  __mmask32 scalar_entries_;
};

}  // namespace

[[DRIX_MASKS]] uint8_t *write_by_masks(const ElementType &type, uint8_t *words, uint32_t count, const void *records,
                                       uint8_t *end) {
  const ElementMasks &masks = *type.masks;
  const MaskedHead heads(masks);
  const __m512i rest = _mm512_loadu_si512(masks.rest.data());
  const __m512i top = _mm512_loadu_si512(masks.top.data());
  const __m512i tops = _mm512_castsi128_si512(_mm_loadu_si128(table<__m128i>(masks.tops)));
  const __m512i tail = _mm512_loadu_si512(masks.tail.data());
  const __m512i tail_sources = _mm512_loadu_si512(masks.tail_sources.data());
  const uint64_t arrays_in_tail = masks.arrays_in_tail;
  const uint64_t record_bytes = masks.record_bytes;
  const uint32_t numbers_used = masks.numbers_used;
  const uint32_t record_size = type.record_size;
  const uint32_t vtable_length = type.vtable_length;
  const uint32_t tail_size = masks.tail_size;
  const auto *record = static_cast<const uint8_t *>(records);
  const uint32_t last = masks.last_elements;
  __m256i head = _mm256_setzero_si256();
  SameShape same;
  for (; count > 0; --count, words += kWord, record += record_size) {
    const __m512i values = _mm512_maskz_loadu_epi8(record_bytes, record);
    // Where a scalar has any other bit, adding all of them to it carries into the top bit, and never beyond.
    const __m512i found = _mm512_or_si512(_mm512_add_epi64(_mm512_and_si512(values, rest), rest), values);
    const uint64_t shape = _mm512_movepi8_mask(_mm512_shuffle_epi8(found, top));
    const auto size = static_cast<uint32_t>(_mm_popcnt_u64(shape));
    if (!same.expected() || !same.as_before(shape)) {
      const __m512i by_number = _mm512_maskz_permutexvar_epi8(numbers_used, tops, found);
      head = heads.of(_mm512_movepi8_mask(by_number), size);
    }
    same.met(shape);
    uint8_t *const table = end + vtable_length;
    store(words, static_cast<uint32_t>(table - words));
    const __m512i packed = _mm512_maskz_compress_epi8(shape, values);
    const __m512i behind = _mm512_mask_permutexvar_epi8(tail, arrays_in_tail, tail_sources, values);
    if (count > last) {  // what is too much is written over
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(end), head);
      store(table, vtable_length);
      _mm512_storeu_si512(table + kWord, packed);
      _mm512_storeu_si512(table + kWord + size, behind);
    } else {
      _mm256_mask_storeu_epi16(end, masks.entries_used, head);
      store(table, vtable_length);
      _mm512_mask_storeu_epi8(table + kWord, _bzhi_u64(UINT64_MAX, size), packed);
      _mm512_mask_storeu_epi8(table + kWord + size, masks.tail_bytes, behind);
    }
    end = table + kWord + size + tail_size;
  }
  return end;
}

[[DRIX_MASKS]] uint32_t read_by_masks(const ElementType &type, const uint8_t *buffer, uint32_t length, uint32_t words,
                                      uint32_t count, void *records) {
  const ElementMasks &masks = *type.masks;
  const MaskedHead heads(masks);
  const __m512i entries = _mm512_loadu_si512(masks.entries.data());
  const __m256i entries_of_numbers = _mm256_castsi128_si256(_mm_loadu_si128(table<__m128i>(masks.entries_of_numbers)));
  const __m512i tail = _mm512_loadu_si512(masks.tail.data());
  const __m512i array_sources = _mm512_loadu_si512(masks.array_sources.data());
  const uint64_t tail_bytes = masks.tail_bytes;
  const uint64_t words_in_tail = tail_bytes & ~masks.arrays_in_tail;
  const uint64_t array_bytes = masks.array_bytes;
  const uint64_t record_bytes = masks.record_bytes;
  const uint64_t scalar_bytes = masks.scalar_bytes;
  const uint32_t numbers_used = masks.numbers_used;
  const auto entries_used = static_cast<__mmask16>(masks.entries_used);
  const uint32_t record_size = type.record_size;
  const uint32_t vtable_length = type.vtable_length;
  const uint32_t tail_size = masks.tail_size;
  const uint32_t first = kWord + vtable_length;
  auto *record = static_cast<uint8_t *>(records);
  __m256i planned = _mm256_setzero_si256();
  uint64_t shape = 0;
  uint32_t size = 0;
  SameShape same;
  for (uint32_t done = 0; done < count; ++done, words += kWord, record += record_size) {
    const uint64_t position = uint64_t{words} + load_once<uint32_t>(buffer + words);
    if (position < first || position + kWord > length) return done;
    const uint8_t *const start = buffer + position;
    __m256i head = _mm256_maskz_loadu_epi16(entries_used, start - vtable_length);
    __asm__("" : "+v"(head));  // not to be loaded again
    if (!same.expected() || _mm256_cmpneq_epi16_mask(head, planned) != 0) {
      const __m512i by_byte = _mm512_maskz_permutexvar_epi8(scalar_bytes, entries, _mm512_castsi256_si512(head));
      const __m256i by_number = _mm256_maskz_permutexvar_epi8(numbers_used, entries_of_numbers, head);
      shape = _mm512_test_epi8_mask(by_byte, by_byte);
      size = static_cast<uint32_t>(_mm_popcnt_u64(shape));
      planned = heads.of(_mm256_test_epi8_mask(by_number, by_number), size);
      if (_mm256_cmpneq_epi16_mask(head, planned) != 0) return done;
    }
    same.met(shape);
    if (length - position < kWord + size + tail_size || load<uint32_t>(start) != vtable_length) return done;
    const __m512i packed = _mm512_maskz_loadu_epi8(_bzhi_u64(UINT64_MAX, size), start + kWord);
    const __m512i behind = _mm512_maskz_loadu_epi8(tail_bytes, start + kWord + size);
    if (_mm512_mask_cmpneq_epi8_mask(words_in_tail, behind, tail) != 0) return done;
    const __m512i scalars = _mm512_maskz_expand_epi8(shape, packed);
    const __m512i values = _mm512_mask_permutexvar_epi8(scalars, array_bytes, array_sources, behind);
    _mm512_mask_storeu_epi8(record, record_bytes, values);
  }
  return count;
}

}  // namespace drix

#endif
