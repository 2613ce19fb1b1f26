#include "inbox.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <list>
#include <vector>

#include "endpoint.h"
#include "frame.h"
#include "status.h"

namespace kelvodrix {

namespace {

constexpr size_t kChunkBytes = 64 << 10;
constexpr size_t kMostKept = 256 << 10;      // bytes of memory for a connection that waits for its next frame
constexpr uint64_t kMaxUnacknowledged = 64;  // frames
// How long a receiver without file descriptors to spare leaves new connections to the kernel.
constexpr int kAcceptAgainMs = 100;

struct Connection {
  Fd fd;
  std::vector<uint8_t> rest;  // what has arrived and is not handled: less than a frame unless the loop was stopped
  uint64_t handled = 0;       // frames
  uint64_t acknowledged = 0;  // frames
};

class SocketInbox final : public Inbox {
 public:
  int32_t open(const Endpoint &endpoint) { return listener_.open(endpoint); }

  int32_t run(Loop &loop) override {
    loop_ = &loop;
    for (Connection &each : connections_) handle(each, each.rest);  // what a stop has left
    std::vector<pollfd> items;
    for (bool full = false; !loop.stopped();) {
      std::erase_if(connections_, [](const Connection &each) { return !each.fd; });
      items = {{loop.wake_up(), POLLIN, 0}, {full ? -1 : listener_.fd(), POLLIN, 0}};
      for (const Connection &each : connections_)
        items.push_back({each.fd.get(), static_cast<short>(owes(each) ? POLLIN | POLLOUT : POLLIN), 0});
      {
        const CancelState waiting(loop.cancel_state());
        if (poll(items.data(), items.size(), full ? kAcceptAgainMs : -1) < 0 && errno != EINTR)
          return KELVODRIX_ERR_SYSTEM;
      }
      if (items[0].revents != 0) loop.take_wake_up();
      size_t at = 2;
      for (Connection &each : connections_) {
        const short events = items[at++].revents;
        if (events & POLLOUT) acknowledge(each);
        if (events & ~POLLOUT && !loop.stopped()) receive(each);
      }
      full = items[1].revents != 0 && !accept();
    }
    return KELVODRIX_OK;
  }

 private:
  // False when the process can take no more.
  bool accept() {
    while (Fd fd = listener_.accept()) connections_.emplace_back().fd = std::move(fd);
    return errno == EAGAIN;
  }

  void receive(Connection &from) {
    std::vector<uint8_t> &rest = from.rest;
    // A large frame is taken in alone, into as much memory as it needs.
    const size_t whole = rest.size() >= sizeof(uint32_t) ? load<uint32_t>(rest.data()) : 0;
    const size_t most = whole > kMostKept ? std::min(whole - rest.size(), chunk_.size()) : chunk_.size();
    const ssize_t count = recv(from.fd.get(), chunk_.data(), most, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) return from.fd.reset();  // an unfinished frame goes with its connection
    const int32_t status = guarded([&]() -> int32_t {
      const std::span<const uint8_t> arrived(chunk_.data(), static_cast<size_t>(count));
      if (rest.empty()) {
        handle(from, arrived);
      } else {
        rest.reserve(std::max(whole, rest.size() + arrived.size()));
        rest.insert(rest.end(), arrived.begin(), arrived.end());
        handle(from, rest);
      }
      return KELVODRIX_OK;
    });
    if (status != KELVODRIX_OK) from.fd.reset();  // what it has not acknowledged stays counted at the sender
  }

  // Handles the whole frames among the bytes and keeps what is left.
  void handle(Connection &from, std::span<const uint8_t> bytes) {
    while (!loop_->stopped() && from.fd && bytes.size() >= sizeof(uint32_t)) {
      const auto length = load<uint32_t>(bytes.data());
      const bool possible = length >= kHeaderBytes && length <= KELVODRIX_MAX_FRAME_BYTES;
      if (possible && length > bytes.size()) break;
      if (!possible || load<uint64_t>(&bytes[8]) != from.handled + 1 || !well_formed(bytes.first(length))) {
        loop_->count_malformed();
        return end(from);
      }
      deliver(from, bytes.first(length));
      bytes = bytes.subspan(length);
      if (++from.handled - from.acknowledged == kMaxUnacknowledged) acknowledge(from);
    }
    acknowledge(from);
    std::vector<uint8_t> &rest = from.rest;
    if (bytes.size() == rest.size()) return;
    if (rest.empty())
      rest.assign(bytes.begin(), bytes.end());
    else
      rest.erase(rest.begin(), rest.end() - static_cast<ptrdiff_t>(bytes.size()));
    if (rest.capacity() > kMostKept) rest.shrink_to_fit();
  }

  void deliver(Connection &from, std::span<const uint8_t> frame) try { loop_->deliver(frame); } catch (...) {
    end(from);  // the frame is neither handled again nor acknowledged
    throw;
  }

  // Acknowledges what was good before.
  static void end(Connection &from) {
    acknowledge(from);
    from.fd.reset();
  }

  static bool owes(const Connection &to) { return to.acknowledged != to.handled; }

  // What a slow sender leaves no room for is written later; one that is gone shows when it is read from.
  static void acknowledge(Connection &to) {
    uint8_t bytes[kAcknowledgementBytes];
    store(bytes, to.handled);
    while (owes(to)) {
      const ssize_t count = ::send(to.fd.get(), bytes, sizeof(bytes), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (count < 0 && errno == EAGAIN) return;
      if (count >= 0 || errno != EINTR) to.acknowledged = to.handled;
    }
  }

  Listener listener_;

  // The loop's own.
  Loop *loop_ = nullptr;
  std::list<Connection> connections_;
  std::array<uint8_t, kChunkBytes> chunk_;
};

}  // namespace

int32_t make_socket_inbox(const char *endpoint, std::unique_ptr<Inbox> &inbox) {
  Endpoint parsed;
  if (const int32_t status = parse_endpoint(endpoint, parsed); status != KELVODRIX_OK) return status;
  auto made = std::make_unique<SocketInbox>();
  const int32_t status = made->open(parsed);
  if (status == KELVODRIX_OK) inbox = std::move(made);
  return status;
}

}  // namespace kelvodrix
