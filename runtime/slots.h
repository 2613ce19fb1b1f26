// The slot list of a record type, read off its positional members at compile time.
//
// The plain structure in the public header is the schema: slot I is the member f<I>, and its kind follows from the
// member's type.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace drix {

enum class Kind : uint8_t {
  scalar,  // uint8_t, uint16_t or uint32_t
  array,   // uint8_t[N] or uint32_t[N]
  bytes,   // uint8_t * with f<I>Len
  table,   // another record by value
  vector   // another record's pointer with f<I>Count
};

inline constexpr std::size_t kMaxSlots = 48;  // as many as the list of accessors below has

template <std::size_t I>
struct Member {
  template <class R>
  static constexpr bool exists = false;
};

#define DRIX_MEMBER(I)                                   \
  template <>                                            \
  struct Member<I> {                                     \
    template <class R>                                   \
    static constexpr bool exists = requires(R & r) {     \
      r.f##I;                                            \
    };                                                   \
    template <class R>                                   \
    static constexpr bool has_length = requires(R & r) { \
      r.f##I##Len;                                       \
    };                                                   \
    template <class R>                                   \
    static constexpr bool has_count = requires(R & r) {  \
      r.f##I##Count;                                     \
    };                                                   \
    template <class R>                                   \
    static constexpr std::size_t offset() {              \
      return offsetof(R, f##I);                          \
    }                                                    \
    template <class R>                                   \
    static constexpr std::size_t length_offset() {       \
      return offsetof(R, f##I##Len);                     \
    }                                                    \
    template <class R>                                   \
    static constexpr std::size_t count_offset() {        \
      return offsetof(R, f##I##Count);                   \
    }                                                    \
    template <class R>                                   \
    static constexpr auto &value(R &r) {                 \
      return r.f##I;                                     \
    }                                                    \
    template <class R>                                   \
    static constexpr auto &length(R &r) {                \
      return r.f##I##Len;                                \
    }                                                    \
    template <class R>                                   \
    static constexpr auto &count(R &r) {                 \
      return r.f##I##Count;                              \
    }                                                    \
  };

// clang-format off
DRIX_MEMBER(0)  DRIX_MEMBER(1)  DRIX_MEMBER(2)  DRIX_MEMBER(3)  DRIX_MEMBER(4)  DRIX_MEMBER(5)  DRIX_MEMBER(6)
DRIX_MEMBER(7)  DRIX_MEMBER(8)  DRIX_MEMBER(9)  DRIX_MEMBER(10) DRIX_MEMBER(11) DRIX_MEMBER(12) DRIX_MEMBER(13)
DRIX_MEMBER(14) DRIX_MEMBER(15) DRIX_MEMBER(16) DRIX_MEMBER(17) DRIX_MEMBER(18) DRIX_MEMBER(19) DRIX_MEMBER(20)
DRIX_MEMBER(21) DRIX_MEMBER(22) DRIX_MEMBER(23) DRIX_MEMBER(24) DRIX_MEMBER(25) DRIX_MEMBER(26) DRIX_MEMBER(27)
DRIX_MEMBER(28) DRIX_MEMBER(29) DRIX_MEMBER(30) DRIX_MEMBER(31) DRIX_MEMBER(32) DRIX_MEMBER(33) DRIX_MEMBER(34)
DRIX_MEMBER(35) DRIX_MEMBER(36) DRIX_MEMBER(37) DRIX_MEMBER(38) DRIX_MEMBER(39) DRIX_MEMBER(40) DRIX_MEMBER(41)
DRIX_MEMBER(42) DRIX_MEMBER(43) DRIX_MEMBER(44) DRIX_MEMBER(45) DRIX_MEMBER(46) DRIX_MEMBER(47)
// clang-format on
#undef DRIX_MEMBER

template <class R, std::size_t I = 0>
constexpr std::size_t count_slots() {
  if constexpr (Member<I>::template exists<R>) {
    return count_slots<R, I + 1>();
  } else {
    return I;
  }
}

template <class R>
inline constexpr std::size_t kSlots = count_slots<R>();

// What slot I of R is.
template <class R, std::size_t I>
struct Slot {
  using Type = std::remove_reference_t<decltype(Member<I>::value(std::declval<R &>()))>;
  using Element = std::remove_pointer_t<std::remove_extent_t<Type>>;  // of an array, byte string or vector

  static constexpr Kind find_kind() {
    if constexpr (std::is_class_v<Type>) {
      return Kind::table;
    } else if constexpr (std::is_pointer_v<Type> && std::is_class_v<Element>) {
      static_assert(Member<I>::template has_count<R>, "a vector needs its count member");
      static_assert(std::is_same_v<decltype(Member<I>::count(std::declval<R &>())), uint32_t &>,
                    "a vector's count is a uint32_t");
      return Kind::vector;
    } else if constexpr (std::is_pointer_v<Type>) {
      static_assert(std::is_same_v<Element, uint8_t>, "a pointer is a byte string or a vector of records");
      static_assert(Member<I>::template has_length<R>, "a byte string needs its length member");
      static_assert(std::is_same_v<decltype(Member<I>::length(std::declval<R &>())), uint32_t &>,
                    "a byte string's length is a uint32_t");
      return Kind::bytes;
    } else if constexpr (std::is_array_v<Type>) {
      static_assert(std::is_same_v<Element, uint8_t> || std::is_same_v<Element, uint32_t>,
                    "an array is one of uint8_t or uint32_t, with one dimension");
      return Kind::array;
    } else {
      static_assert(std::is_same_v<Type, uint8_t> || std::is_same_v<Type, uint16_t> || std::is_same_v<Type, uint32_t>,
                    "a scalar is a uint8_t, uint16_t or uint32_t");
      return Kind::scalar;
    }
  }

  static constexpr std::size_t index = I;
  static constexpr Kind kind = find_kind();
  static constexpr std::size_t offset = Member<I>::template offset<R>();
  static constexpr std::size_t elements = std::extent_v<Type>;  // of an array

  // Of the member before a byte string or vector.
  static constexpr std::size_t find_length_offset() {
    if constexpr (kind == Kind::bytes) return Member<I>::template length_offset<R>();
    if constexpr (kind == Kind::vector) return Member<I>::template count_offset<R>();
    return 0;
  }
  static constexpr std::size_t length_offset = find_length_offset();

  static constexpr auto &value(auto &record) { return Member<I>::value(record); }
  static constexpr auto &length(auto &record) { return Member<I>::length(record); }
  static constexpr auto &count(auto &record) { return Member<I>::count(record); }
};

// Calls visit(Slot<R, I>) for every slot in order.
template <class R, class Visit>
[[gnu::always_inline]] constexpr void for_each_slot(Visit visit) {
  [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline)) { (visit(Slot<R, I>()), ...); }
  (std::make_index_sequence<kSlots<R>>());
}

// The same until a visit returns false; tells whether all returned true.
template <class R, class Visit>
[[nodiscard, gnu::always_inline]] constexpr bool all_slots(Visit visit) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline)) {
    return (visit(Slot<R, I>()) && ...);
  }
  (std::make_index_sequence<kSlots<R>>());
}

// A type without byte strings and vectors at any depth has a fixed layout and owns nothing.
template <class R>
inline constexpr bool kFixedLength = all_slots<R>([]<class S>(S) {
  if constexpr (S::kind == Kind::table) return kFixedLength<typename S::Type>;
  return S::kind == Kind::scalar || S::kind == Kind::array;
});

// A type without tables and vectors.
template <class R>
inline constexpr bool kFlat = all_slots<R>([](auto slot) {
  return slot.kind != Kind::table && slot.kind != Kind::vector;
});

struct AnyMember {
  template <class T>
  operator T() const;
};

// Whether R has so many members, or more.
template <class R, std::size_t... I>
constexpr bool takes_members(std::index_sequence<I...>) {
  return requires { R{{(static_cast<void>(I), AnyMember())}...}; };
}

// True when every member of R belongs to a slot and the members stand in slot order, lengths and counts before their
// pointers, so that a misspelt or misplaced member is a compile error and not a lost field.
template <class R>
constexpr bool every_member_is_a_slot() {
  struct Found {
    std::size_t members = 0;
    bool ordered = true;
  };
  constexpr Found found = [] {
    Found in_order;
    std::size_t last_offset = 0;
    const auto follows = [&](std::size_t offset) {
      in_order.ordered = in_order.ordered && (in_order.members == 0 || offset > last_offset);
      last_offset = offset;
      ++in_order.members;
    };
    for_each_slot<R>([&](auto slot) {
      if (slot.kind == Kind::bytes || slot.kind == Kind::vector) follows(slot.length_offset);
      follows(slot.offset);
    });
    return in_order;
  }();
  return found.ordered && takes_members<R>(std::make_index_sequence<found.members>()) &&
         !takes_members<R>(std::make_index_sequence<found.members + 1>());
}

// Element types own nothing and hold no further tables, embedded types hold no further tables.
template <class R>
constexpr bool nests_one_level() {
  return all_slots<R>([]<class S>(S) {
    if constexpr (S::kind == Kind::table) return kFlat<typename S::Type>;
    if constexpr (S::kind == Kind::vector) return kFlat<typename S::Element> && kFixedLength<typename S::Element>;
    return true;
  });
}

}  // namespace drix
