#include "transport.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <string_view>
#include <system_error>

namespace kelvodrix {

namespace {

constexpr std::string_view kIpc = "ipc://";

[[noreturn]] void fail() {
  if (errno == ENOMEM) throw std::bad_alloc();
  throw std::system_error(errno, std::generic_category());
}

int32_t status_of(int error) {
  switch (error) {
    case EINVAL:
    case ENAMETOOLONG:
    case EPROTONOSUPPORT:
      return KELVODRIX_ERR_ENDPOINT;
    case EADDRINUSE:
      return KELVODRIX_ERR_IN_USE;
    case ENOMEM:
      return KELVODRIX_ERR_NO_MEMORY;
    case EMFILE:
    case ENFILE:
    case EMTHREAD:
      return KELVODRIX_ERR_SYSTEM;
    default:
      return KELVODRIX_ERR_BIND;
  }
}

// ZeroMQ silently replaces whatever file stands at an ipc path. That is right for the socket of a receiver that died,
// but neither for the socket of a living one nor for any other file.
int32_t check_ipc_path(const std::string &path) {
  struct stat file;
  sockaddr_un address{};
  if (path.size() >= sizeof(address.sun_path) || lstat(path.c_str(), &file) != 0) return KELVODRIX_OK;
  if (!S_ISSOCK(file.st_mode)) return KELVODRIX_ERR_BIND;
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (probe < 0) return KELVODRIX_ERR_SYSTEM;
  bool alive = connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 || errno == EAGAIN;
  close(probe);
  return alive ? KELVODRIX_ERR_IN_USE : KELVODRIX_OK;
}

}  // namespace

int32_t parse_endpoint(const char *text, Endpoint &endpoint) {
  std::string_view view(text);
  size_t scheme = view.find("://");
  endpoint.text = scheme == view.npos ? std::string(kIpc).append(view) : std::string(view);
  endpoint.inproc = view.starts_with("inproc://");
  endpoint.tcp = view.starts_with("tcp://");
  bool known = endpoint.inproc || endpoint.tcp || endpoint.text.starts_with(kIpc);
  return known && !endpoint.text.ends_with("://") ? KELVODRIX_OK : KELVODRIX_ERR_ENDPOINT;
}

Context make_context() {
  void *context = zmq_ctx_new();
  if (context == nullptr) fail();
  return Context(context, [](void *ended) {
    while (zmq_ctx_term(ended) != 0 && errno == EINTR) {
    }
  });
}

Context shared_context() {
  static std::mutex mutex;
  static std::weak_ptr<void> shared;
  std::lock_guard lock(mutex);
  Context context = shared.lock();
  if (!context) shared = context = make_context();
  return context;
}

Socket::Socket(Context context, int type) : context_(std::move(context)), socket_(zmq_socket(context_.get(), type)) {
  if (socket_ == nullptr) fail();
}

Socket::~Socket() { zmq_close(socket_); }

void Socket::set(int option, int value) {
  if (zmq_setsockopt(socket_, option, &value, sizeof(value)) != 0) fail();
}

void Socket::set(int option, int64_t value) {
  if (zmq_setsockopt(socket_, option, &value, sizeof(value)) != 0) fail();
}

int32_t Socket::bind(const Endpoint &endpoint) {
  if (endpoint.text.starts_with(kIpc)) {
    int32_t status = check_ipc_path(endpoint.text.substr(kIpc.size()));
    if (status != KELVODRIX_OK) return status;
  }
  return zmq_bind(socket_, endpoint.text.c_str()) == 0 ? KELVODRIX_OK : status_of(errno);
}

int32_t Socket::connect(const Endpoint &endpoint) {
  return zmq_connect(socket_, endpoint.text.c_str()) == 0 ? KELVODRIX_OK : status_of(errno);
}

Part::Part(size_t size) {
  if (zmq_msg_init_size(&part_, size) != 0) throw std::bad_alloc();
}

bool Part::receive(const Socket &socket) {
  int result;
  do result = zmq_msg_recv(&part_, socket.get(), ZMQ_DONTWAIT);
  while (result < 0 && errno == EINTR);
  return result >= 0;
}

bool Part::send(const Socket &socket, int flags) {
  int result;
  do result = zmq_msg_send(&part_, socket.get(), ZMQ_DONTWAIT | flags);
  while (result < 0 && errno == EINTR);
  return result >= 0;
}

}  // namespace kelvodrix
