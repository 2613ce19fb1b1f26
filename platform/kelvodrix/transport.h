// Owners of ZeroMQ's contexts, sockets and messages, and the rules for endpoints.
#ifndef KELVODRIX_TRANSPORT_H
#define KELVODRIX_TRANSPORT_H

#include <zmq.h>

#include <memory>
#include <string>

#include "kelvodrix.h"

namespace kelvodrix {

struct Endpoint {
  std::string text;  // as ZeroMQ wants it
  bool inproc = false;
  bool tcp = false;
};

// Returns KELVODRIX_OK or KELVODRIX_ERR_ENDPOINT.
int32_t parse_endpoint(const char *text, Endpoint &endpoint);

// A ZeroMQ context, terminated when its last socket is closed.
using Context = std::shared_ptr<void>;
Context make_context();
// The one that both ends of inproc endpoints have to share.
Context shared_context();

class Socket {
 public:
  // Throws std::bad_alloc or std::system_error.
  Socket(Context context, int type);
  ~Socket();
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;

  void set(int option, int value);
  void set(int option, int64_t value);
  void *get() const { return socket_; }
  // Return KELVODRIX_OK or what was wrong.
  int32_t bind(const Endpoint &endpoint);
  int32_t connect(const Endpoint &endpoint);

 private:
  Context context_;  // outlives the socket
  void *socket_;
};

// One message part.
class Part {
 public:
  Part() { zmq_msg_init(&part_); }
  // Throws std::bad_alloc.
  explicit Part(size_t size);
  ~Part() { zmq_msg_close(&part_); }
  Part(const Part &) = delete;
  Part &operator=(const Part &) = delete;

  void *data() { return zmq_msg_data(&part_); }
  size_t size() const { return zmq_msg_size(&part_); }
  bool more() const { return zmq_msg_more(&part_) != 0; }
  // Neither waits; false when nothing could be received or sent now.
  [[nodiscard]] bool receive(const Socket &socket);
  [[nodiscard]] bool send(const Socket &socket, int flags = 0);

 private:
  mutable zmq_msg_t part_;
};

}  // namespace kelvodrix

#endif
