// Peers of the library doing the same work: from a record to bytes in a buffer, from bytes to a record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "korBrokerFib6.h"

namespace bench {

using Route = korBrokerFib6_ipv6Fwd;
using Routes = korBrokerFib6_ipv6FwdUpdateMsg;

// Protocol Buffers: messages live in an arena that is reset before each.
namespace protobuf {

class Codec {
 public:
  explicit Codec(std::size_t elements);  // the longest vector, for which the arena has room without a further block
  ~Codec();

  // Return the number of bytes written, which are room at most; 0 on failure.
  std::size_t write(const Route &record, uint8_t *out, std::size_t room);
  std::size_t write(const Routes &record, uint8_t *out, std::size_t room);

  // A vector is allocated with malloc.
  bool read(const uint8_t *in, std::size_t size, Route &record);
  bool read(const uint8_t *in, std::size_t size, Routes &record);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace protobuf

// Cap'n Proto: messages are built in one segment that is used again and again. Buffers are aligned to 8 bytes.
namespace capnproto {

class Codec {
 public:
  explicit Codec(std::size_t elements);
  ~Codec();
  std::size_t write(const Route &record, uint8_t *out, std::size_t room);
  std::size_t write(const Routes &record, uint8_t *out, std::size_t room);
  bool read(const uint8_t *in, std::size_t size, Route &record);
  bool read(const uint8_t *in, std::size_t size, Routes &record);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace capnproto
}  // namespace bench
