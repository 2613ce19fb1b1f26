// The message types of libdrix_fib6 in C++17 and later, found by their records. Everything here is inline and calls the
// exported operations: what drix_message.h says of arguments, ownership, results and threads holds unchanged.
#ifndef DRIX_MESSAGE_HPP
#define DRIX_MESSAGE_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>
#if __cplusplus >= 202002L
#include <span>
#endif

// Every package on the include path, so that the order of includes does not matter. A package that is not there is left
// out; one that was included before from another place is not.
#if __has_include("fib6_cfg.h")
#include "fib6_cfg.h"
#endif
#if __has_include("korBrokerFib6.h")
#include "korBrokerFib6.h"
#endif
#if __has_include("fib6Sync.h")
#include "fib6Sync.h"
#endif

namespace drix {

// What belongs to the message type with the record R: its name, such as "fib6_cfg.query_comm_param", package, ID and
// seven operations. Incomplete when R is no message type's record.
template <class R>
struct message;

#define DRIX_MESSAGE_TRAITS(p, m)                                   \
  template <>                                                       \
  struct message<p##_##m> {                                         \
    static constexpr char name[] = #p "." #m;                       \
    static constexpr char package[] = #p;                           \
    static constexpr std::uint32_t id = drix_message_id(name);      \
    static constexpr auto pack = p##_##m##__pack;                   \
    static constexpr auto unpack = p##_##m##__unpack;               \
    static constexpr auto free_unpacked = p##_##m##_free__unpacked; \
    static constexpr auto sendmsg = p##_##m##__sendmsg;             \
    static constexpr auto sendtomsg = p##_##m##__sendtomsg;         \
    static constexpr auto sendsingle = p##_##m##__sendsingle;       \
    static constexpr auto sendbatch = p##_##m##__sendbatch;         \
  };
#ifdef FIB6_CFG_MESSAGES
FIB6_CFG_MESSAGES(DRIX_MESSAGE_TRAITS)
#endif
#ifdef KORBROKERFIB6_MESSAGES
KORBROKERFIB6_MESSAGES(DRIX_MESSAGE_TRAITS)
#endif
#ifdef FIB6SYNC_MESSAGES
FIB6SYNC_MESSAGES(DRIX_MESSAGE_TRAITS)
#endif
#undef DRIX_MESSAGE_TRAITS

// A view of a byte string or vector, span(record.f3, record.f3Len), that owns nothing. Empty where the pointer is null,
// as it is, beside a length that stays, in a record whose decoding ended early. In C++20 it converts to std::span.
template <class T>
class span {
 public:
  constexpr span(T *data, std::size_t size) : data_(data), size_(data == nullptr ? 0 : size) {}
  constexpr T *data() const { return data_; }
  constexpr std::size_t size() const { return size_; }
  constexpr bool empty() const { return size_ == 0; }
  constexpr T *begin() const { return data_; }
  constexpr T *end() const { return data_ + size_; }
  constexpr T &operator[](std::size_t i) const { return data_[i]; }

 private:
  T *data_;
  std::size_t size_;
};

// A record that was decoded, which is released with this object. Not for records that a bus hands to a subscriber:
// those the bus releases.
//
// There is nothing to ask whether the buffer was good, for unpack returns the same for any: what became of it shows in
// the record. It is all zeros when the buffer was rejected before anything was read, and after it was moved from.
template <class R>
class received {
 public:
  received(const std::uint8_t *buffer, std::size_t length) {
    // A length that needs more than 32 bits is as much out of range as the longest that does not.
    message<R>::unpack(buffer, static_cast<std::uint32_t>(std::min<std::size_t>(length, UINT32_MAX)), &record_);
  }
  received(received &&other) noexcept : record_(std::exchange(other.record_, R())) {}
  received &operator=(received other) noexcept {
    std::swap(record_, other.record_);
    return *this;
  }
  ~received() { message<R>::free_unpacked(&record_); }

  const R &operator*() const { return record_; }
  const R *operator->() const { return &record_; }

 private:
  R record_ = R();
};

// Sends one record, or all records of an array, std::vector, std::span or the like in one call of the bus, as sendtomsg
// does; destination 0 is the default one. Returns the bus's own status, or -1 with nothing sent: no records, or too
// many.
template <class R>
auto send(std::uint32_t handle, const R &record, std::uint32_t destination = 0)
    -> decltype(message<R>::sendtomsg(handle, &record, 1, destination)) {
  return message<R>::sendtomsg(handle, &record, 1, destination);
}
template <class Records,
          class R = std::remove_cv_t<std::remove_pointer_t<decltype(std::data(std::declval<Records &>()))>>>
auto send(std::uint32_t handle, const Records &records, std::uint32_t destination = 0)
    -> decltype(message<R>::sendtomsg(handle, std::data(records), 1, destination)) {
  const auto count = static_cast<std::uint32_t>(std::size(records));
  return count == std::size(records) ? message<R>::sendtomsg(handle, std::data(records), count, destination) : -1;
}

}  // namespace drix

#ifdef __cpp_lib_span
template <class T>
inline constexpr bool std::ranges::enable_borrowed_range<drix::span<T>> = true;
#endif

#endif
