#include "link.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kelvodrix {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr milliseconds kLookInterval = 1ms;
constexpr milliseconds kRetryInterval = 20ms;
// After that, a waiting send looks whether its channel has been closed.
constexpr milliseconds kLongestWait = 50ms;

}  // namespace

int32_t Link::send(std::span<const DrixSendDescriptor> messages) {
  const size_t limit = std::min(KELVODRIX_MAX_FRAME_BYTES, options_.window_bytes);
  size_t frame_bytes = kHeaderBytes;
  if (messages.size() > KELVODRIX_MAX_FRAME_MESSAGES) return KELVODRIX_ERR_TOO_BIG;
  for (const DrixSendDescriptor &message : messages) {
    if (message.address == 0 && message.length != 0) return KELVODRIX_ERR_INVALID;
    if (message.length > limit) return KELVODRIX_ERR_TOO_BIG;  // or the sum could wrap
    frame_bytes += kMessageOverhead + message.length;
    if (frame_bytes > limit) return KELVODRIX_ERR_TOO_BIG;
  }

  const Deadline deadline = Clock::now() + milliseconds(options_.send_timeout_ms);
  std::unique_lock lock(mutex_);
  // What keeps the send before this one waiting keeps this one waiting too.
  if (!turn_.wait_until(lock, deadline, [&] { return closed_ || !sending_; })) return obstacle_;
  if (closed_) return KELVODRIX_ERR_HANDLE;
  sending_ = true;
  const int32_t status = send(lock, messages, frame_bytes, deadline);
  sending_ = false;
  begun_ = 0;
  turn_.notify_one();
  return status;
}

int32_t Link::send(std::unique_lock<std::mutex> &lock, std::span<const DrixSendDescriptor> messages, size_t frame_bytes,
                   Deadline deadline) {
  for (bool again = true;;) {
    const bool connected = fd_ != nullptr;
    obstacle_ = begun_ != 0 ? KELVODRIX_OK : begin(messages, frame_bytes);
    if (obstacle_ == KELVODRIX_OK) obstacle_ = write_out();
    if (obstacle_ != KELVODRIX_ERR_NO_RECEIVER && obstacle_ != KELVODRIX_ERR_WINDOW) return obstacle_;
    if (connected && !fd_ && std::exchange(again, false)) continue;  // to a receiver that was restarted
    if (Clock::now() >= deadline) {
      if (begun_ != 0 && written_ != 0) return KELVODRIX_OK;  // the rest follows
      if (begun_ != 0) withdraw();
      return obstacle_;
    }
    wait(lock, deadline);
    if (closed_) return KELVODRIX_ERR_HANDLE;
  }
}

Undelivered Link::settle(Deadline until) {
  std::unique_lock lock(mutex_);
  while (!closed_ && write_out() != KELVODRIX_ERR_NO_RECEIVER) {
    take_in();
    if (in_flight_.empty() || Clock::now() >= until) break;
    wait(lock, until);
  }
  return undelivered_;
}

Undelivered Link::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  turn_.notify_all();
  return undelivered_;
}

int32_t Link::connect() {
  if (fd_ && !connecting_) return KELVODRIX_OK;
  const bool started = fd_ != nullptr;
  if (!started) fd_ = std::make_shared<Fd>();
  const int error = started ? finish_connection(*fd_) : start_connection(endpoint_, *fd_);
  connecting_ = error == EINPROGRESS;
  if (error == 0 && trusted(*fd_)) return KELVODRIX_OK;
  if (!connecting_) fd_.reset();
  return error == EMFILE || error == ENFILE ? KELVODRIX_ERR_SYSTEM : KELVODRIX_ERR_NO_RECEIVER;
}

void Link::disconnect() {
  fd_.reset();
  // A frame that was not written whole will not be handled, so the send that is writing it may try again.
  undelivered_.lost += std::exchange(undelivered_.pending, 0) - std::exchange(begun_, 0);
  in_flight_.clear();
  in_flight_bytes_ = 0;
  out_.clear();
  written_ = in_bytes_ = 0;
  sent_ = 0;
}

bool Link::fits(size_t frame_bytes) const {
  return in_flight_.size() < options_.window_frames && frame_bytes <= options_.window_bytes - in_flight_bytes_;
}

// Makes the frame the one to be written when there are a connection and room.
int32_t Link::begin(std::span<const DrixSendDescriptor> messages, size_t frame_bytes) {
  int32_t status = connect();
  if (status == KELVODRIX_OK) status = write_out();  // what the send before has left
  if (status != KELVODRIX_OK) return status;
  if (!fits(frame_bytes) || Clock::now() - last_look_ > kLookInterval) take_in();
  if (!fd_) return KELVODRIX_ERR_NO_RECEIVER;
  if (!fits(frame_bytes)) return KELVODRIX_ERR_WINDOW;

  const auto count = static_cast<uint32_t>(messages.size());
  out_.resize(frame_bytes);
  written_ = frame_bytes;  // nothing to write, should the next line throw
  in_flight_.push_back({count, frame_bytes});
  written_ = 0;
  in_flight_bytes_ += frame_bytes;
  undelivered_.pending += count;
  begun_ = count;

  uint8_t *to = store(out_.data(), static_cast<uint32_t>(frame_bytes));
  to = store(store(store(to, kMagic), ++sent_), count);
  for (const DrixSendDescriptor &message : messages) {
    to = store(store(to, message.id), message.length);
    if (message.length != 0) std::memcpy(to, reinterpret_cast<const void *>(message.address), message.length);
    to += message.length;
  }
  return KELVODRIX_OK;
}

// Takes back the frame that was begun, of which nothing is written.
void Link::withdraw() {
  --sent_;
  undelivered_.pending -= in_flight_.back().messages;
  in_flight_bytes_ -= in_flight_.back().bytes;
  in_flight_.pop_back();
  out_.clear();
}

int32_t Link::write_out() {
  while (!written_out()) {
    const ssize_t count =
        ::send(fd_->get(), out_.data() + written_, out_.size() - written_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      written_ += static_cast<size_t>(count);
    } else if (errno == EAGAIN) {
      return KELVODRIX_ERR_WINDOW;
    } else if (errno != EINTR) {
      take_in();  // the last acknowledgements
      disconnect();
      return KELVODRIX_ERR_NO_RECEIVER;
    }
  }
  return KELVODRIX_OK;
}

// Reads acknowledgements. Ends the connection when the peer has, or when it acknowledges what it cannot have.
void Link::take_in() {
  last_look_ = Clock::now();
  for (bool more = fd_ && !connecting_; more;) {
    const ssize_t count = recv(fd_->get(), &in_[in_bytes_], in_.size() - in_bytes_, MSG_DONTWAIT);
    if (count < 0 && errno == EAGAIN) return;
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return disconnect();
    in_bytes_ += static_cast<size_t>(count);
    more = in_bytes_ == in_.size();
    size_t at = 0;
    for (; in_bytes_ - at >= kAcknowledgementBytes; at += kAcknowledgementBytes)
      if (!acknowledge(load<uint64_t>(&in_[at]))) return disconnect();
    in_bytes_ -= at;
    std::memmove(in_.data(), &in_[at], in_bytes_);
  }
}

bool Link::acknowledge(uint64_t number) {
  const uint64_t before = sent_ - in_flight_.size();
  if (number <= before || number > sent_ - (written_out() ? 0 : 1)) return false;
  for (uint64_t left = number - before; left != 0; --left) {
    undelivered_.pending -= in_flight_.front().messages;
    in_flight_bytes_ -= in_flight_.front().bytes;
    in_flight_.pop_front();
  }
  return true;
}

void Link::wait(std::unique_lock<std::mutex> &lock, Deadline deadline) {
  const std::shared_ptr<Fd> fd = fd_;  // stays open, whatever others do meanwhile
  const short events = connecting_ || !written_out() ? POLLIN | POLLOUT : POLLIN;
  pollfd item = {fd ? fd->get() : -1, events, 0};  // without a connection it is time that has to pass
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
  lock.unlock();
  poll(&item, 1, static_cast<int>(std::clamp(left, 0ms, fd ? kLongestWait : kRetryInterval).count()));
  lock.lock();
  take_in();
}

}  // namespace kelvodrix
