#include "link.h"

#include <algorithm>
#include <random>

#include "frame.h"

namespace kelvodrix {

namespace {

using namespace std::chrono_literals;

constexpr Clock::duration kProbeInterval = 50ms;
constexpr int kProbeAllowance = 1024;

// After that, a waiting send looks whether its channel has been closed.
constexpr std::chrono::milliseconds kLongestPoll = 50ms;

// An acknowledgement is smaller, but ZeroMQ's own handshake counts as well.
constexpr int64_t kMaxIncomingBytes = 1024;

constexpr int kReconnectMs = 50;
constexpr int kHeartbeatMs = 1000;
constexpr int kHeartbeatTimeoutMs = 3000;

uint64_t random_id() {
  std::random_device random;
  return uint64_t{random()} << 32 | random();
}

void configure(Socket &socket, const Endpoint &endpoint) {
  socket.set(ZMQ_MAXMSGSIZE, kMaxIncomingBytes);
  socket.set(ZMQ_LINGER, 0);
  socket.set(ZMQ_RECONNECT_IVL, kReconnectMs);
  if (endpoint.tcp) {
    socket.set(ZMQ_HEARTBEAT_IVL, kHeartbeatMs);
    socket.set(ZMQ_HEARTBEAT_TIMEOUT, kHeartbeatTimeoutMs);
  }
}

// Waits until the socket is ready or the deadline has passed; may return early, with false.
bool ready(const Socket &socket, short events, Deadline deadline) {
  auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  zmq_pollitem_t item = {socket.get(), 0, events, 0};
  return zmq_poll(&item, 1, static_cast<long>(std::clamp(left, 0ms, kLongestPoll).count())) > 0;
}

}  // namespace

Link::Link(const Endpoint &endpoint, const kelvodrix_options &options)
    : endpoint_(endpoint),
      options_(options),
      id_(random_id()),
      socket_(shared_context(), ZMQ_DEALER),
      next_probe_(Clock::now() + kProbeInterval) {
  configure(socket_, endpoint);
  // Twice the need, because ZeroMQ notices only in steps of half a queue what has left it.
  socket_.set(ZMQ_SNDHWM, 2 * (static_cast<int>(options.window_frames) + kProbeAllowance));
  if (endpoint.inproc) return;
  // A socket that queues for live connections only tells whether there is one, but when that one ends it drops what it
  // has received: not a place for acknowledgements.
  presence_.emplace(shared_context(), ZMQ_DEALER);
  configure(*presence_, endpoint);
  presence_->set(ZMQ_IMMEDIATE, 1);
}

int32_t Link::connect() {
  int32_t status = socket_.connect(endpoint_);
  return status == KELVODRIX_OK && presence_ ? presence_->connect(endpoint_) : status;
}

int32_t Link::send(std::span<const DrixSendDescriptor> messages, size_t frame_bytes, Deadline deadline) {
  std::unique_lock lock(mutex_);
  // What keeps the sender before this one waiting keeps this one waiting too.
  if (!turn_.wait_until(lock, deadline, [&] { return closed_ || waiting_for_ == KELVODRIX_OK; })) return waiting_for_;
  for (;;) {
    if (closed_) return KELVODRIX_ERR_HANDLE;
    take_in();
    const bool present = connected();
    if (present && fits(frame_bytes) && send_data(messages, frame_bytes)) return KELVODRIX_OK;
    const int32_t obstacle = present ? KELVODRIX_ERR_WINDOW : KELVODRIX_ERR_NO_RECEIVER;
    if (Clock::now() >= deadline) return obstacle;
    wait(lock, obstacle, deadline);
  }
}

Undelivered Link::update() {
  std::lock_guard lock(mutex_);
  if (waiting_for_ == KELVODRIX_OK) take_in();  // otherwise the waiting thread does
  return undelivered_;
}

Undelivered Link::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  turn_.notify_all();
  return undelivered_;
}

void Link::wait(std::unique_lock<std::mutex> &lock, int32_t obstacle, Deadline deadline) {
  waiting_for_ = obstacle;
  const Deadline next_probe = next_probe_;
  lock.unlock();
  if (obstacle == KELVODRIX_ERR_WINDOW)
    ready(socket_, ZMQ_POLLIN, std::min(deadline, next_probe));
  else
    ready(*presence_, ZMQ_POLLOUT, deadline);
  lock.lock();
  waiting_for_ = KELVODRIX_OK;
  turn_.notify_all();
}

bool Link::send_data(std::span<const DrixSendDescriptor> messages, size_t frame_bytes) {
  Part frame(frame_bytes);
  auto count = static_cast<uint32_t>(messages.size());
  Writer writer(frame.data());
  writer.put_header(Kind::kData, id_, sequence_ + 1);
  writer.put(count);
  for (const DrixSendDescriptor &message : messages) {
    writer.put(message.id);
    writer.put(message.length);
    writer.put(reinterpret_cast<const void *>(message.address), message.length);
  }

  outstanding_.push_back({count, frame_bytes});
  if (!transmit(frame)) {
    outstanding_.pop_back();
    return false;
  }
  ++sequence_;
  outstanding_bytes_ += frame_bytes;
  undelivered_.pending += count;
  return true;
}

bool Link::fits(size_t frame_bytes) const {
  return outstanding_.size() < options_.window_frames && frame_bytes <= options_.window_bytes - outstanding_bytes_;
}

bool Link::connected() const { return !presence_ || ready(*presence_, ZMQ_POLLOUT, {}); }

void Link::take_in() {
  Deadline now = Clock::now();
  for (Part part; part.receive(socket_);) {
    Reader reader(part.data(), part.size());
    Header header;
    uint64_t first, last;
    if (!reader.get(header) || header.kind != Kind::kAcknowledgement || header.link != id_ || !reader.get(first) ||
        !reader.get(last) || header.sequence > sequence_)
      continue;
    settle(first, last, header.sequence);
    next_probe_ = now + kProbeInterval;
  }
  if (outstanding_.empty() || now < next_probe_ || !connected()) return;

  Part probe(kHeaderBytes);
  Writer(probe.data()).put_header(Kind::kProbe, id_, sequence_);
  static_cast<void>(transmit(probe));  // if not now, then next time
  next_probe_ = now + kProbeInterval;
}

void Link::settle(uint64_t first, uint64_t last, uint64_t settled) {
  while (!outstanding_.empty()) {
    uint64_t oldest = sequence_ - outstanding_.size() + 1;
    if (oldest > settled) return;
    if (oldest < first || oldest > last) undelivered_.lost += outstanding_.front().messages;
    undelivered_.pending -= outstanding_.front().messages;
    outstanding_bytes_ -= outstanding_.front().bytes;
    outstanding_.pop_front();
  }
}

bool Link::transmit(Part &frame) {
  if (frame.send(socket_)) return true;
  // Alone among the transports, inproc does not connect again by itself.
  return endpoint_.inproc && connect() == KELVODRIX_OK && frame.send(socket_);
}

}  // namespace kelvodrix
