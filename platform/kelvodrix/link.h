// The sending end over a socket.
#ifndef KELVODRIX_LINK_H
#define KELVODRIX_LINK_H

#include <mutex>
#include <vector>

#include "endpoint.h"
#include "frame.h"
#include "transport.h"
#include "window.h"

namespace kelvodrix {

int32_t make_socket_link(const char *endpoint, const kelvodrix_options &options, std::shared_ptr<Link> &link);

class SocketLink final : public Link {
 public:
  SocketLink(const Endpoint &endpoint, const kelvodrix_options &options)
      : endpoint_(endpoint), options_(options), window_(options) {}

  int32_t send(std::span<const DrixSendDescriptor> messages, bool &left) override;
  void settle(Deadline until, bool close, Undelivered &total) override;
  bool write_left() override;
  void finish(Deadline start) override;

 private:
  // All of these are called with the mutex locked.
  void disconnect();
  void drop_out();
  int32_t append(std::span<const DrixSendDescriptor> messages, size_t frame_bytes);
  int32_t write_out();
  void take_in();
  bool acknowledge(uint64_t number);
  void wait(std::unique_lock<std::mutex> &lock, Deadline deadline);
  bool fits(size_t frame_bytes) const;
  size_t unwritten() const { return out_.size() - written_; }

  const Endpoint endpoint_;
  const kelvodrix_options options_;

  std::mutex mutex_;  // guards what follows; let go while somebody waits
  bool closed_ = false;
  std::shared_ptr<Fd> fd_;    // shared with those who wait; null: not connected
  Window window_;             // of this connection, and what former ones have left undelivered
  std::vector<uint8_t> out_;  // the last frames, and how much of them is written
  size_t written_ = 0;
  Deadline last_look_;  // for acknowledgements
};

}  // namespace kelvodrix

#endif
