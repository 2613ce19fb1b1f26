#include "capture/follower.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include "capture/ring_file.h"

namespace capture {

Follower::Follower(const std::vector<std::string> &paths, Complaint complain, Patience patience)
    : complain_(std::move(complain)), patience_(patience) {
  for (const std::string &path : paths) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
      watched_.push_back({path, ""});
      continue;
    }
    const std::filesystem::path file = path;
    const auto in_ring = ring_file(file.filename());
    if (error) throw BadCapture(path + ": " + error.message());
    if (!in_ring) throw BadCapture(path + ": not a file that the recorder writes, so it cannot be followed");
    watched_.push_back({file.has_parent_path() ? file.parent_path().string() : ".", in_ring->ring});
  }
}

void Follower::discover() {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_discovery_) return;
  next_discovery_ = now + patience_.discovery;
  for (const Watched &watched : watched_) {
    std::map<std::string, std::pair<uint64_t, uint64_t>> found;  // the least and the largest number of each ring
    for_each_ring_file(watched.folder, [&](const RingFile &file) {
      if (!watched.ring.empty() && file.ring != watched.ring) return;
      auto &[least, largest] = found.try_emplace(file.ring, file.number, file.number).first->second;
      least = std::min(least, file.number);
      largest = std::max(largest, file.number);
    });
    for (const auto &[name, numbers] : found) ring(watched.folder, name, numbers.first).expect(numbers.second);
  }
}

// The ring of this name, which begins with this number unless it is followed already.
Ring &Follower::ring(const std::string &folder, const std::string &name, uint64_t first) {
  const auto known =
      std::find_if(rings_.begin(), rings_.end(), [&](const auto &ring) { return ring->is(folder, name); });
  if (known != rings_.end()) return **known;
  return *rings_.emplace_back(std::make_unique<Ring>(folder, name, first, complain_, patience_));
}

const Message *Follower::next() {
  if (taken_ != nullptr) taken_->take();
  taken_ = nullptr;
  discover();
  const Message *earliest = nullptr;
  for (const auto &ring : rings_) {
    const Message *const message = ring->message();
    if (message == nullptr || (earliest != nullptr && earliest->time <= message->time)) continue;
    earliest = message;
    taken_ = ring.get();
  }
  return earliest;
}

}  // namespace capture
