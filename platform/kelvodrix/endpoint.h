// Where receivers are, and the sockets between them and their senders.
#ifndef KELVODRIX_ENDPOINT_H
#define KELVODRIX_ENDPOINT_H

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "kelvodrix.h"

namespace kelvodrix {

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd &operator=(Fd &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd() { reset(); }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  void reset() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

 private:
  int fd_;
};

struct Endpoint {
  sockaddr_un address{};
  socklen_t length = 0;

  const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&address); }
  std::string path() const { return address.sun_path; }  // empty for an inproc endpoint
};

int32_t parse_endpoint(const char *text, Endpoint &endpoint);

// Returns 0, with a connection to somebody who may be talked to, or what is wrong.
int connect(const Endpoint &endpoint, Fd &fd);

// The status for an error of the operating system while a socket was made ready.
int32_t status_of(int error, int32_t otherwise);

class Listener {
 public:
  Listener() = default;
  ~Listener();
  Listener(const Listener &) = delete;
  Listener &operator=(const Listener &) = delete;

  // Once. Returns KELVODRIX_OK or what is wrong.
  int32_t open(const Endpoint &endpoint);
  int fd() const { return socket_.get(); }
  // The next trusted connection; none, with what went wrong in errno, when there is no more for now.
  Fd accept() const;

 private:
  int32_t take_path(const Endpoint &endpoint);

  std::string path_, lock_path_;
  struct stat file_ {
  }, lock_file_{};  // what we have made there; somebody may since have removed it, and another receiver come
  Fd socket_, lock_;
};

}  // namespace kelvodrix

#endif
