#include "floors.h"

#include <algorithm>
#include <sstream>

namespace kelvodrix {

std::string write_floor(const Floor &floor) {
  return std::to_string(floor.place) + ' ' + std::to_string(floor.created) + ' ' + std::to_string(floor.owner);
}

Floor read_floor(const natsMsg *message) {
  std::istringstream text{std::string(text_of(message))};
  Floor floor;
  return text >> floor.place >> floor.created >> floor.owner ? floor : Floor();
}

int32_t Floors::open(const std::shared_ptr<Session> &session, const std::string &bucket) {
  bucket_ = std::make_unique<Stream>(session, bucket);
  return bucket_->open();
}

int32_t Floors::look(int64_t created) {
  Owned<jsStreamInfo> all;
  int32_t status = bucket_->info(all, Stream::kSubjects);
  if (status != KELVODRIX_OK) return status;
  // A server that leads since a moment ago may not have all yet that it will have: what it lacks says nothing.
  if (all->State.LastSeq < last_) return KELVODRIX_ERR_SERVER;
  last_ = all->State.LastSeq;
  const jsStreamStateSubjects *const keys = all->State.Subjects;
  Message found;
  for (int i = 0; keys != nullptr && i < keys->Count && status == KELVODRIX_OK; ++i) {
    const std::string key = keys->List[i].Subject;
    status = bucket_->get_last(key, found);
    if (found == nullptr) continue;
    const Floor floor = read_floor(found.get());
    if (floor.owner == 0)
      places_.erase(key);
    else
      places_[key] = floor.created == created ? floor.place : 0;
  }
  return status;
}

uint64_t Floors::lowest(uint64_t at_most) const {
  for (const auto &[key, place] : places_) at_most = std::min(at_most, place);
  return at_most;
}

uint64_t Floors::highest() const {
  uint64_t highest = 0;
  for (const auto &[key, place] : places_) highest = std::max(highest, place);
  return highest;
}

}  // namespace kelvodrix
