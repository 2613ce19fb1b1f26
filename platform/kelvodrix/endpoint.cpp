#include "endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
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

// Finds out after half a minute that an idle peer's host is gone; accepted connections inherit that.
Fd make_socket(const Endpoint &endpoint) {
  Fd fd(socket(endpoint.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd || endpoint.address.ss_family == AF_UNIX) return fd;
  set(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  set(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10);
  set(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5);
  set(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
  set(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  return fd;
}

template <typename Address>
void assign(Endpoint &endpoint, const Address &address, size_t length = sizeof(Address)) {
  std::memcpy(&endpoint.address, &address, sizeof(address));
  endpoint.length = static_cast<socklen_t>(length);
}

// HOST:PORT, both in digits.
int32_t parse_tcp(std::string_view text, bool open, Endpoint &endpoint) {
  const size_t colon = std::min(text.rfind(':'), text.size());
  std::string host(text.substr(0, colon));
  const char *const end = text.data() + text.size();
  uint16_t port = 0;
  const auto parsed = std::from_chars(std::min(text.data() + colon + 1, end), end, port);
  if (parsed.ec != std::errc() || parsed.ptr != end || port == 0) return KELVODRIX_ERR_ENDPOINT;

  sockaddr_in v4{};
  sockaddr_in6 v6{};
  v4.sin_family = AF_INET;
  v6.sin6_family = AF_INET6;
  v4.sin_port = v6.sin6_port = htons(port);
  if (inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
    assign(endpoint, v4);
    return open || ntohl(v4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET ? KELVODRIX_OK : KELVODRIX_ERR_OPEN;
  }
  if (!host.starts_with('[') || !host.ends_with(']')) return KELVODRIX_ERR_ENDPOINT;
  host.pop_back();
  if (inet_pton(AF_INET6, host.c_str() + 1, &v6.sin6_addr) != 1) return KELVODRIX_ERR_ENDPOINT;
  assign(endpoint, v6);
  return open || IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) ? KELVODRIX_OK : KELVODRIX_ERR_OPEN;
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
int32_t parse_inproc(std::string_view name, Endpoint &endpoint) {
  static const std::string unique = std::to_string(std::random_device()());
  const std::string prefix = std::string(1, '\0') + "kelvodrix-" + std::to_string(getpid()) + '-' + unique + '-';
  return parse_unix(prefix + std::string(name), endpoint);
}

}  // namespace

std::string Endpoint::path() const {
  return address.ss_family == AF_UNIX ? reinterpret_cast<const sockaddr_un &>(address).sun_path : "";
}

int32_t parse_endpoint(const char *text, Endpoint &endpoint) {
  if (text == nullptr) return KELVODRIX_ERR_INVALID;
  const std::string_view whole(text);
  const size_t separator = whole.find("://");
  const std::string_view scheme = separator == whole.npos ? "" : whole.substr(0, separator);
  const std::string_view rest = separator == whole.npos ? whole : whole.substr(separator + 3);
  if (scheme == "tcp" || scheme == "tcp-open") return parse_tcp(rest, scheme == "tcp-open", endpoint);
  if (rest.empty()) return KELVODRIX_ERR_ENDPOINT;
  if (scheme == "inproc") return parse_inproc(rest, endpoint);
  if (scheme == "ipc" || (scheme.empty() && rest.find('/') != rest.npos))
    return parse_unix(std::string(rest), endpoint);
  return scheme.empty() ? parse_name(rest, endpoint) : KELVODRIX_ERR_ENDPOINT;
}

int connect(const Endpoint &endpoint, Fd &fd) {
  if (!fd) {
    fd = make_socket(endpoint);
    if (!fd) return errno;
    if (endpoint.address.ss_family == AF_UNIX) set(fd, SOL_SOCKET, SO_SNDBUF, kSendBufferBytes);
  }
  return ::connect(fd.get(), endpoint.get(), endpoint.length) == 0 ? 0 : errno;
}

bool trusted(const Fd &fd) {
  sockaddr_storage own{}, other{};
  socklen_t own_size = sizeof(own), other_size = sizeof(other);
  if (getsockname(fd.get(), reinterpret_cast<sockaddr *>(&own), &own_size) != 0 ||
      getpeername(fd.get(), reinterpret_cast<sockaddr *>(&other), &other_size) != 0)
    return false;
  // A connection to a port of this host where nobody listens may meet itself.
  if (own.ss_family != AF_UNIX) return std::memcmp(&own, &other, sizeof(own)) != 0;
  ucred peer{};
  socklen_t size = sizeof(peer);
  return getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && (peer.uid == geteuid() || peer.uid == 0);
}

int32_t status_of(int error, int32_t otherwise) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS ? KELVODRIX_ERR_SYSTEM : otherwise;
}

// The lock tells a living receiver's socket file from one that a killed receiver has left behind.
int32_t Listener::take_path(const Endpoint &endpoint) {
  const std::string path = endpoint.path(), lock_path = path + ".lock";
  struct stat locked {
  }, named{};
  do {
    lock_ = Fd(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_) return status_of(errno, KELVODRIX_ERR_BIND);
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) return KELVODRIX_ERR_IN_USE;
    // Its owner until now may just have removed it.
  } while (fstat(lock_.get(), &locked) != 0 || stat(lock_path.c_str(), &named) != 0 || locked.st_ino != named.st_ino);
  path_ = path;

  Fd probe;  // somebody without a lock may be there
  const int error = connect(endpoint, probe);
  if (error == 0 || error == EAGAIN) return KELVODRIX_ERR_IN_USE;
  const bool left = error == ECONNREFUSED && lstat(path.c_str(), &named) == 0 && S_ISSOCK(named.st_mode);
  return !left || unlink(path.c_str()) == 0 ? KELVODRIX_OK : KELVODRIX_ERR_BIND;
}

int32_t Listener::open(const Endpoint &endpoint) {
  const bool has_path = !endpoint.path().empty();
  if (const int32_t status = has_path ? take_path(endpoint) : KELVODRIX_OK; status != KELVODRIX_OK) return status;
  Fd fd = make_socket(endpoint);
  if (fd && endpoint.address.ss_family != AF_UNIX) {
    set(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    set(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnansweredMs);
  }
  if (fd && bind(fd.get(), endpoint.get(), endpoint.length) == 0) {
    socket_ = std::move(fd);
    if ((!has_path || chmod(path_.c_str(), 0600) == 0) && listen(socket_.get(), SOMAXCONN) == 0) return KELVODRIX_OK;
  }
  return status_of(errno, errno == EADDRINUSE && !has_path ? KELVODRIX_ERR_IN_USE : KELVODRIX_ERR_BIND);
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
    if (!fd || trusted(fd)) return fd;
  }
}

}  // namespace kelvodrix
