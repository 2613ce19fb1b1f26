// Writes down the messages that cross the bus.
#pragma once

#include <cstdint>

#include "drix_bus.h"
#include "trace/ring.h"

namespace trace {

// Reads the environment; whether there is anything to record. To be called once, when the process starts.
bool start_recorder();
void stop_recorder();

// In a child: it gets files of its own, at its first call of the bus.
void restart_recorder();

// Makes the first file, at the first call of the bus, where it holds up nothing.
void open_trace();

// The messages of a send call, recorded before the bus gets them and again with the bus's answer. Nothing is held
// meanwhile, as the thread may stay in the bus for ever or leave it by a jump: what has been overwritten by then gets
// no answer. Nor do messages before the last kMostParts files, should a call fill more.
//
// Their buffers are read; a null one, and one that is longer than any decoder takes, is not.
class SentMessages {
 public:
  void record(uint32_t handle, uint32_t destination, const DrixSendDescriptor *messages, uint32_t count);
  void conclude(int32_t status) const;

 private:
  struct Part {  // what was written into one file
    Reservation reservation;
    uint32_t messages;
  };
  static constexpr uint32_t kMostParts = 8;
  Part parts_[kMostParts];
  uint32_t count_ = 0;
};

// A message on its way to its decoder, likewise.
class ReceivedMessage {
 public:
  void record(uint32_t id, const uint8_t *buffer, uint32_t length);
  void conclude(int32_t status) const;

 private:
  Reservation reservation_ = {};
};

// Records that so many decoders are beyond what can be seen.
void record_unwrapped(uint32_t count);

}  // namespace trace
