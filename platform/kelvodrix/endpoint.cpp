#include "endpoint.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstddef>
#include <random>
#include <string_view>

namespace kelvodrix {

namespace {

constexpr int kSendBufferBytes = 1 << 20;

Fd make_socket() { return Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)); }

int32_t parse_path(const std::string &path, Endpoint &endpoint) {
  if (path.size() >= sizeof(endpoint.address.sun_path)) return KELVODRIX_ERR_PATH;
  endpoint.address.sun_family = AF_UNIX;
  path.copy(endpoint.address.sun_path, path.size());
  endpoint.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (path[0] != '\0' ? 1 : 0));
  return KELVODRIX_OK;
}

// In a folder that is shared, somebody else could take a name first.
int32_t parse_name(std::string_view name, Endpoint &endpoint) {
  const std::string folder = "/tmp/kelvodrix-" + std::to_string(geteuid());
  struct stat found;
  if ((mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) || lstat(folder.c_str(), &found) != 0 ||
      !S_ISDIR(found.st_mode) || found.st_uid != geteuid() || (found.st_mode & 077) != 0)
    return KELVODRIX_ERR_FOLDER;
  return parse_path((folder + '/').append(name), endpoint);
}

// An abstract name is seen by the whole host: no other process may have the same by chance.
int32_t parse_inproc(std::string_view name, Endpoint &endpoint) {
  static const std::string unique = std::to_string(std::random_device()());
  const std::string prefix = std::string(1, '\0') + "kelvodrix-" + std::to_string(getpid()) + '-' + unique + '-';
  return parse_path(prefix + std::string(name), endpoint);
}

// Whether the other end is a process of this user or of root.
bool trusted(const Fd &fd) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  return getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && (peer.uid == geteuid() || peer.uid == 0);
}

bool is_at(const std::string &path, const struct stat &file) {
  struct stat found;
  return lstat(path.c_str(), &found) == 0 && found.st_dev == file.st_dev && found.st_ino == file.st_ino;
}

}  // namespace

int32_t parse_endpoint(const char *text, Endpoint &endpoint) {
  if (text == nullptr) return KELVODRIX_ERR_INVALID;
  const std::string_view whole(text);
  const size_t separator = whole.find("://");
  const std::string_view scheme = separator == whole.npos ? "" : whole.substr(0, separator);
  const std::string_view rest = separator == whole.npos ? whole : whole.substr(separator + 3);
  if (rest.empty()) return KELVODRIX_ERR_ENDPOINT;
  if (scheme == "inproc") return parse_inproc(rest, endpoint);
  if (scheme == "ipc" || (scheme.empty() && rest.find('/') != rest.npos))
    return parse_path(std::string(rest), endpoint);
  return scheme.empty() ? parse_name(rest, endpoint) : KELVODRIX_ERR_ENDPOINT;
}

int connect(const Endpoint &endpoint, Fd &fd) {
  fd = make_socket();
  if (!fd) return errno;
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof(kSendBufferBytes));
  if (::connect(fd.get(), endpoint.get(), endpoint.length) != 0) return errno;
  return trusted(fd) ? 0 : EPERM;
}

int32_t status_of(int error, int32_t otherwise) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS ? KELVODRIX_ERR_SYSTEM : otherwise;
}

// The lock tells a living receiver's socket file from one that a killed receiver has left behind.
int32_t Listener::take_path(const Endpoint &endpoint) {
  path_ = endpoint.path();
  lock_path_ = path_ + ".lock";
  struct stat locked, left;
  do {
    lock_ = Fd(::open(lock_path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_) return status_of(errno, KELVODRIX_ERR_BIND);
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) return KELVODRIX_ERR_IN_USE;
    if (fstat(lock_.get(), &locked) != 0) return KELVODRIX_ERR_SYSTEM;
  } while (!is_at(lock_path_, locked));  // its owner until now may just have removed it
  lock_file_ = locked;

  Fd probe;  // somebody without a lock may be there
  const int error = connect(endpoint, probe);
  if (error == 0 || error == EPERM || error == EAGAIN) return KELVODRIX_ERR_IN_USE;
  const bool dead = error == ECONNREFUSED && lstat(path_.c_str(), &left) == 0 && S_ISSOCK(left.st_mode);
  return !dead || unlink(path_.c_str()) == 0 ? KELVODRIX_OK : KELVODRIX_ERR_BIND;
}

int32_t Listener::open(const Endpoint &endpoint) {
  const bool has_path = !endpoint.path().empty();
  if (const int32_t status = has_path ? take_path(endpoint) : KELVODRIX_OK; status != KELVODRIX_OK) return status;
  socket_ = make_socket();
  if (socket_ && bind(socket_.get(), endpoint.get(), endpoint.length) == 0 &&
      (!has_path || (lstat(path_.c_str(), &file_) == 0 && chmod(path_.c_str(), 0600) == 0)) &&
      listen(socket_.get(), SOMAXCONN) == 0)
    return KELVODRIX_OK;
  return status_of(errno, errno == EADDRINUSE && !has_path ? KELVODRIX_ERR_IN_USE : KELVODRIX_ERR_BIND);
}

Listener::~Listener() {
  if (is_at(path_, file_)) unlink(path_.c_str());
  if (is_at(lock_path_, lock_file_)) unlink(lock_path_.c_str());
}

Fd Listener::accept() const {
  for (;;) {
    Fd fd(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (!fd || trusted(fd)) return fd;
  }
}

}  // namespace kelvodrix
