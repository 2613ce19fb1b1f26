#include "endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <random>
#include <string_view>

namespace kelvodrix {

namespace {

constexpr int kSendBufferBytes = 1 << 20;
constexpr int kUnansweredMs = 30000;

void set(const Fd &fd, int level, int option, int value) { setsockopt(fd.get(), level, option, &value, sizeof(value)); }

Fd make_socket(const Endpoint &endpoint) {
  return Fd(socket(endpoint.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

// Finds out after half a minute that an idle peer's host is gone.
void configure_tcp(const Fd &fd) {
  set(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  set(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  set(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10);
  set(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5);
  set(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
}

template <typename Address>
void assign(Endpoint &endpoint, const Address &address, size_t length = sizeof(Address)) {
  std::memcpy(&endpoint.address, &address, sizeof(address));
  endpoint.length = static_cast<socklen_t>(length);
}

// HOST:PORT, both in digits.
int32_t parse_tcp(std::string_view text, bool open, Endpoint &endpoint) {
  const size_t colon = text.rfind(':');
  if (colon == text.npos) return KELVODRIX_ERR_ENDPOINT;
  const std::string_view digits = text.substr(colon + 1);
  uint16_t port = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  if (error != std::errc() || end != digits.data() + digits.size() || port == 0) return KELVODRIX_ERR_ENDPOINT;

  std::string host(text.substr(0, colon));
  bool loopback;
  if (host.starts_with('[') && host.ends_with(']')) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    if (inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &address.sin6_addr) != 1)
      return KELVODRIX_ERR_ENDPOINT;
    loopback = IN6_IS_ADDR_LOOPBACK(&address.sin6_addr);
    assign(endpoint, address);
  } else {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) return KELVODRIX_ERR_ENDPOINT;
    loopback = ntohl(address.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    assign(endpoint, address);
  }
  return loopback || open ? KELVODRIX_OK : KELVODRIX_ERR_OPEN;
}

int32_t parse_unix(const std::string &path, Endpoint &endpoint) {
  sockaddr_un address{};
  if (path.size() >= sizeof(address.sun_path)) return KELVODRIX_ERR_PATH;
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  assign(endpoint, address, offsetof(sockaddr_un, sun_path) + path.size() + (path[0] != '\0' ? 1 : 0));
  return KELVODRIX_OK;
}

// In a folder that is shared, somebody else could take a name first.
int32_t parse_name(std::string_view name, Endpoint &endpoint) {
  const std::string folder = "/tmp/kelvodrix-" + std::to_string(geteuid());
  struct stat found;
  if ((mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) || lstat(folder.c_str(), &found) != 0 ||
      !S_ISDIR(found.st_mode) || found.st_uid != geteuid() || (found.st_mode & 077) != 0)
    return KELVODRIX_ERR_FOLDER;
  return parse_unix((folder + '/').append(name), endpoint);
}

// An abstract name is seen by the whole host: no other process may have the same by chance.
std::string inproc_path(std::string_view name) {
  static const std::string unique = std::to_string(std::random_device()());
  return (std::string(1, '\0') + "kelvodrix-" + std::to_string(getpid()) + '-' + unique + '-').append(name);
}

int32_t status_of(int error) {
  const bool exhausted = error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
  return exhausted ? KELVODRIX_ERR_SYSTEM : error == EADDRINUSE ? KELVODRIX_ERR_IN_USE : KELVODRIX_ERR_BIND;
}

}  // namespace

std::string Endpoint::path() const {
  return address.ss_family == AF_UNIX ? reinterpret_cast<const sockaddr_un &>(address).sun_path : "";
}

int32_t parse_endpoint(const char *text, Endpoint &endpoint) {
  std::string_view rest(text);
  const auto skip = [&](std::string_view scheme) {
    const bool found = rest.starts_with(scheme);
    if (found) rest.remove_prefix(scheme.size());
    return found;
  };
  if (skip("tcp://")) return parse_tcp(rest, false, endpoint);
  if (skip("tcp-open://")) return parse_tcp(rest, true, endpoint);
  const bool inproc = skip("inproc://"), ipc = skip("ipc://");
  if (rest.empty() || rest.find("://") != rest.npos) return KELVODRIX_ERR_ENDPOINT;
  if (inproc) return parse_unix(inproc_path(rest), endpoint);
  return ipc || rest.find('/') != rest.npos ? parse_unix(std::string(rest), endpoint) : parse_name(rest, endpoint);
}

int start_connection(const Endpoint &endpoint, Fd &fd) {
  fd = make_socket(endpoint);
  if (!fd) return errno;
  if (endpoint.address.ss_family == AF_UNIX)
    set(fd, SOL_SOCKET, SO_SNDBUF, kSendBufferBytes);
  else
    configure_tcp(fd);
  return connect(fd.get(), endpoint.get(), endpoint.length) == 0 ? 0 : errno;
}

int finish_connection(const Fd &fd) {
  pollfd item = {fd.get(), POLLOUT, 0};
  if (poll(&item, 1, 0) <= 0) return EINPROGRESS;
  int error = 0;
  socklen_t size = sizeof(error);
  return getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

bool trusted(const Fd &fd) {
  sockaddr_storage own{}, other{};
  socklen_t own_size = sizeof(own), other_size = sizeof(other);
  if (getsockname(fd.get(), reinterpret_cast<sockaddr *>(&own), &own_size) != 0) return false;
  if (own.ss_family != AF_UNIX) {
    // A connection to a port of this host where nobody listens may meet itself.
    return getpeername(fd.get(), reinterpret_cast<sockaddr *>(&other), &other_size) == 0 &&
           std::memcmp(&own, &other, sizeof(own)) != 0;
  }
  ucred peer{};
  socklen_t size = sizeof(peer);
  return getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && (peer.uid == geteuid() || peer.uid == 0);
}

// The lock tells a living receiver's socket file from one that a killed receiver has left behind.
int32_t Listener::take_path(const Endpoint &endpoint) {
  const std::string path = endpoint.path(), lock_path = path + ".lock";
  struct stat locked {
  }, named{};
  do {
    lock_ = Fd(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_) return status_of(errno);
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) return KELVODRIX_ERR_IN_USE;
    // Its owner until now may just have removed it.
  } while (fstat(lock_.get(), &locked) != 0 || stat(lock_path.c_str(), &named) != 0 || locked.st_ino != named.st_ino);
  path_ = path;

  if (lstat(path.c_str(), &named) != 0) return KELVODRIX_OK;
  if (!S_ISSOCK(named.st_mode)) return KELVODRIX_ERR_BIND;
  Fd probe;  // somebody without a lock may be there
  const int error = start_connection(endpoint, probe);
  if (error == 0 || error == EAGAIN) return KELVODRIX_ERR_IN_USE;
  return unlink(path.c_str()) == 0 ? KELVODRIX_OK : KELVODRIX_ERR_BIND;
}

int32_t Listener::open(const Endpoint &endpoint) {
  if (!endpoint.path().empty()) {
    const int32_t status = take_path(endpoint);
    if (status != KELVODRIX_OK) return status;
  }
  Fd fd = make_socket(endpoint);
  if (!fd) return status_of(errno);
  if (endpoint.address.ss_family != AF_UNIX) set(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  if (bind(fd.get(), endpoint.get(), endpoint.length) != 0) return status_of(errno);
  socket_ = std::move(fd);
  if (!path_.empty() && chmod(path_.c_str(), 0600) != 0) return KELVODRIX_ERR_BIND;
  return listen(socket_.get(), SOMAXCONN) == 0 ? KELVODRIX_OK : status_of(errno);
}

Listener::~Listener() {
  if (path_.empty()) return;
  if (socket_) unlink(path_.c_str());
  unlink((path_ + ".lock").c_str());
}

Fd Listener::accept() const {
  for (;;) {
    Fd fd(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (!fd) return fd;
    if (!trusted(fd)) continue;
    configure_tcp(fd);  // changes nothing on other sockets
    set(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnansweredMs);
    return fd;
  }
}

}  // namespace kelvodrix
