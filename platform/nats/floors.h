// How far the receivers of a table have come: a bucket with a key for each, which they put and the writer reads.
#ifndef KELVODRIX_NATS_FLOORS_H
#define KELVODRIX_NATS_FLOORS_H

#include <map>

#include "stream.h"

namespace kelvodrix {

struct Floor {
  uint64_t place = 0;   // of the last frame that is handled
  int64_t created = 0;  // the stream that the place is in
  uint64_t owner = 0;   // the process that receives; 0: there is none that is to be waited for
};
std::string write_floor(const Floor &floor);
Floor read_floor(const natsMsg *message);

// What a writer knows of them.
class Floors {
 public:
  // Through another session, too: what is known stays known.
  int32_t open(const std::shared_ptr<Session> &session, const std::string &bucket);
  const Stream &bucket() const { return *bucket_; }
  // Servers whose bucket ends before this place lag behind.
  void expect(uint64_t place) { last_ = place; }
  // Reads them all, which are of a stream that was created then.
  int32_t look(int64_t created);
  uint64_t lowest(uint64_t at_most) const;
  uint64_t highest() const;

 private:
  std::unique_ptr<Stream> bucket_;
  uint64_t last_ = 0;
  std::map<std::string, uint64_t> places_;  // of the last frame that is handled, by the receiver's key
};

}  // namespace kelvodrix

#endif
