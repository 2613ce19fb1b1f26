// Writes down the messages that cross the bus.
#pragma once

#include <cstdint>

#include "drix_bus.h"
#include "trace/ring.h"

namespace trace {

// Reads the environment; whether there is anything to record. To be called once, when the process starts.
bool start_recorder();
void stop_recorder();

// In a child after fork(): it gets files of its own, at its first call of the bus.
void restart_recorder();

// Makes the first file, at the first call of the bus, where it holds up nothing.
void open_trace();

// Where the messages of a call were written, file by file. What is older than the ring has been overwritten by then.
class Written {
 public:
  void add(const Place &place, uint32_t messages) { parts_[count_++ % kMostFiles] = {place, messages}; }

  // Stores what became of the call with those of its messages that are still there.
  void conclude(int32_t status) const;

 private:
  struct Part {
    Place place;
    uint32_t messages;
  };
  Part parts_[kMostFiles];
  uint32_t count_ = 0;
};

// Records messages before the bus, or the decoder, gets them. Their buffers are read; a null one and one that is longer
// than any decoder takes is not.
void record_sent(uint32_t handle, uint32_t destination, const DrixSendDescriptor *messages, uint32_t count,
                 Written &written);
void record_received(uint32_t id, const uint8_t *buffer, uint32_t length, Written &written);

// Records that so many decoders are beyond what can be seen.
void record_unwrapped(uint32_t count);

}  // namespace trace
