#include "link.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

namespace kelvodrix {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

// A frame is written at once unless so many are under way: then it waits for others, up to so many bytes or until
// somebody writes what is left.
constexpr size_t kFramesToGather = 8;
constexpr size_t kBytesToGather = 16 << 10;
// While so many bytes wait for room in the connection, a send waits too: they are still in the caches when they are
// written.
constexpr size_t kMostUnwritten = 256 << 10;
// A link that has written everything keeps no more memory.
constexpr size_t kMostKeptOut = 1 << 20;
constexpr milliseconds kLookInterval(1), kRetryInterval(20);
constexpr milliseconds kLongestWait(50);  // then a send looks whether its channel has been closed

}  // namespace

int32_t make_socket_link(const char *endpoint, const kelvodrix_options &options, std::shared_ptr<Link> &link) {
  Endpoint parsed;
  const int32_t status = parse_endpoint(endpoint, parsed);
  if (status == KELVODRIX_OK) link = std::make_shared<SocketLink>(parsed, options);
  return status;
}

int32_t SocketLink::send(std::span<const DrixSendDescriptor> messages, bool &left) {
  const size_t limit = std::min(KELVODRIX_MAX_FRAME_BYTES, options_.window_bytes);
  size_t frame_bytes;
  if (const int32_t status = measure_frame(messages, limit, frame_bytes); status != KELVODRIX_OK) return status;

  const Deadline deadline = Clock::now() + milliseconds(options_.send_timeout_ms);
  std::unique_lock lock(mutex_);
  for (bool again = true;;) {
    if (closed_) return KELVODRIX_ERR_HANDLE;
    const bool connected = fd_ != nullptr;
    int32_t status = append(messages, frame_bytes);
    if (status == KELVODRIX_OK && (window_.frames() <= kFramesToGather || unwritten() >= kBytesToGather) &&
        write_out() == KELVODRIX_ERR_NO_RECEIVER) {
      window_.withdraw(messages.size());  // nobody will handle what was not written whole
      status = KELVODRIX_ERR_NO_RECEIVER;
    }
    left = unwritten() != 0;
    if (status != KELVODRIX_ERR_NO_RECEIVER && status != KELVODRIX_ERR_WINDOW) return status;
    if (connected && !fd_ && std::exchange(again, false)) continue;  // to a receiver that was restarted
    if (Clock::now() >= deadline) return status;
    wait(lock, deadline);
  }
}

bool SocketLink::write_left() {
  std::lock_guard lock(mutex_);
  return !closed_ && write_out() == KELVODRIX_ERR_WINDOW;
}

void SocketLink::finish(Deadline start) {
  const Deadline deadline = start + milliseconds(options_.send_timeout_ms);
  std::unique_lock lock(mutex_);
  while (!closed_ && write_out() == KELVODRIX_ERR_WINDOW && Clock::now() < deadline) wait(lock, deadline);
}

void SocketLink::settle(Deadline until, bool close, Undelivered &total) {
  std::unique_lock lock(mutex_);
  while (!closed_ && write_out() != KELVODRIX_ERR_NO_RECEIVER) {
    take_in();
    if (window_.empty() || Clock::now() >= until) break;
    wait(lock, until);
  }
  closed_ |= close;
  total.messages += window_.undelivered();
  total.pending |= !window_.empty();
}

void SocketLink::disconnect() {
  fd_.reset();
  window_.restart();
  drop_out();
}

void SocketLink::drop_out() {
  std::vector<uint8_t>().swap(out_);
  written_ = 0;
}

bool SocketLink::fits(size_t frame_bytes) const { return window_.fits(frame_bytes) && unwritten() < kMostUnwritten; }

// Makes the frame one to be written when there are a connection and room.
int32_t SocketLink::append(std::span<const DrixSendDescriptor> messages, size_t frame_bytes) {
  if (!fd_) {
    auto fd = std::make_shared<Fd>();
    const int error = connect(endpoint_, *fd);
    if (error != 0) return status_of(error, KELVODRIX_ERR_NO_RECEIVER);
    fd_ = fd;
  }
  if (!fits(frame_bytes)) write_out();  // what is not written is not acknowledged either
  if (!fits(frame_bytes) || Clock::now() - last_look_ > kLookInterval) take_in();
  if (!fd_) return KELVODRIX_ERR_NO_RECEIVER;
  if (!fits(frame_bytes)) return KELVODRIX_ERR_WINDOW;

  if (written_ >= out_.size() / 2) {
    out_.erase(out_.begin(), out_.begin() + static_cast<ptrdiff_t>(written_));
    written_ = 0;
  }
  const size_t at = out_.size();
  out_.reserve(at + frame_bytes);  // the last that can fail but for the next line
  window_.add(static_cast<uint32_t>(messages.size()), frame_bytes);
  out_.resize(at + frame_bytes);
  write_frame(messages, frame_bytes, window_.last(), &out_[at]);
  return KELVODRIX_OK;
}

int32_t SocketLink::write_out() {
  while (unwritten() != 0) {
    const ssize_t count = ::send(fd_->get(), out_.data() + written_, unwritten(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      written_ += static_cast<size_t>(count);
    } else if (errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM) {
      return KELVODRIX_ERR_WINDOW;
    } else if (errno != EINTR) {
      take_in();  // the last acknowledgements
      disconnect();
      return KELVODRIX_ERR_NO_RECEIVER;
    }
  }
  if (out_.capacity() > kMostKeptOut) drop_out();
  return KELVODRIX_OK;
}

// Reads acknowledgements. Ends the connection when the peer has, or when it acknowledges what it cannot have.
void SocketLink::take_in() {
  last_look_ = Clock::now();
  uint8_t in[64 * kAcknowledgementBytes];
  for (bool more = fd_ != nullptr; more;) {
    const ssize_t count = recv(fd_->get(), in, sizeof(in), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    const size_t bytes = static_cast<size_t>(std::max<ssize_t>(count, 0));
    if (bytes == 0 || bytes % kAcknowledgementBytes != 0) return disconnect();
    for (size_t at = 0; at < bytes; at += kAcknowledgementBytes)
      if (!acknowledge(load<uint64_t>(&in[at]))) return disconnect();
    more = bytes == sizeof(in);
  }
}

bool SocketLink::acknowledge(uint64_t number) {
  if (number < window_.first() || number > window_.last()) return false;
  while (window_.first() <= number) {
    if (window_.bytes() - window_.first_bytes() < unwritten()) return false;  // it is not even written whole
    window_.settle_first(true);
  }
  return true;
}

void SocketLink::wait(std::unique_lock<std::mutex> &lock, Deadline deadline) {
  const std::shared_ptr<Fd> fd = fd_;  // stays open, whatever others do meanwhile
  const short events = unwritten() != 0 ? POLLIN | POLLOUT : POLLIN;
  pollfd item = {fd ? fd->get() : -1, events, 0};  // without a connection it is time that has to pass
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
  lock.unlock();
  poll(&item, 1, static_cast<int>(std::clamp(left, 0ms, fd ? kLongestWait : kRetryInterval).count()));
  lock.lock();
  take_in();
}

}  // namespace kelvodrix
