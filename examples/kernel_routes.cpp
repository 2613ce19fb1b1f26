#include "kernel_routes.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "process.h"

namespace live {
namespace {

using std::chrono::milliseconds;

[[noreturn]] void fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

class Socket {
 public:
  Socket(int flags, unsigned groups) : socket_(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | flags)) {
    if (!socket_) fail("cannot open a socket to the kernel");
    if (mnl_socket_bind(socket_.get(), groups, MNL_SOCKET_AUTOPID) < 0) fail("cannot listen to the kernel");
  }

  mnl_socket *get() const { return socket_.get(); }
  int fd() const { return mnl_socket_get_fd(socket_.get()); }
  unsigned port() const { return mnl_socket_get_portid(socket_.get()); }

 private:
  struct Close {
    void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
  };

  std::unique_ptr<mnl_socket, Close> socket_;
};

class Mnl final : public KernelRoutes {
 public:
  Mnl(LiveTable &table, KernelMirror::NameInterface name_interface, uint32_t buffer)
      : table_(table), mirror_(table, std::move(name_interface)) {
    const int bytes = static_cast<int>(std::min<uint32_t>(buffer, INT_MAX >> 10) << 10);
    if (setsockopt(events_.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
      setsockopt(events_.fd(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
  }

  int fd() const override { return events_.fd(); }

  // The kernel does not hold its table still while it gives it out: routes may be left out when others come and go, not
  // always with a word of it. So a dump counts when nothing has happened meanwhile. Where that never comes true, what
  // none of several dumps has seen is taken to be gone, and another one will follow.
  void read_all() override {
    const Clock::time_point start = Clock::now();
    uint32_t oldest = table_.pass() + 1;
    bool good = false;
    for (int attempt = 0; attempt < kAttempts && !good; ++attempt) {
      take_all_events();
      mirror_.trust();
      ++counters_.dumps;
      const uint64_t events = counters_.events;
      const uint32_t pass = table_.begin_pass();
      const bool whole = dump(RTM_GETLINK, AF_UNSPEC) && dump(RTM_GETROUTE, AF_INET6);
      mirror_.end_dump();
      take_all_events();
      good = whole && counters_.events == events && !mirror_.in_doubt();
      if (good) oldest = pass;
    }
    table_.sweep(oldest);
    if (!good) mirror_.doubt();
    counters_.dump_seconds = seconds_since(start);
    last_dump_ = Clock::now();
    dump_duration_ = last_dump_ - start;
  }

  void take_changes() override {
    take_events();
    if (mirror_.in_doubt() && Clock::now() >= next_dump()) read_all();
  }

  milliseconds due() const override {
    if (!mirror_.in_doubt()) return milliseconds::max();
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(next_dump() - Clock::now()));
  }

  Counters counters() const override {
    Counters counters = counters_;
    counters.left_out = mirror_.left_out();
    counters.in_doubt = mirror_.in_doubt();
    return counters;
  }

 private:
  static constexpr int kAttempts = 3;
  static constexpr int kMessagesAtOnce = 4096;
  static constexpr milliseconds kLeastPause{200};  // between dumps
  static constexpr int kPauses = 10;               // of a dump's duration
  static constexpr milliseconds kQuiet{50};

  // As soon as the kernel is quiet. Where it never is, dumps take a small share of the time.
  Clock::time_point next_dump() const {
    return std::max(last_dump_ + kLeastPause, std::min(last_dump_ + kPauses * dump_duration_, last_event_ + kQuiet));
  }

  // False when the kernel says that the table has changed meanwhile.
  bool dump(uint16_t type, uint8_t family) {
    const Socket socket(0, 0);  // the rest of a dump that is given up goes with it
    nlmsghdr *const request = mnl_nlmsg_put_header(buffer_.data());
    request->nlmsg_type = type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = ++sequence_;
    const std::size_t header_bytes = std::max(sizeof(rtmsg), sizeof(ifinfomsg));
    static_cast<rtgenmsg *>(mnl_nlmsg_put_extra_header(request, header_bytes))->rtgen_family = family;
    if (mnl_socket_sendto(socket.get(), request, request->nlmsg_len) < 0) fail("cannot ask the kernel for its routes");

    const auto take = [](const nlmsghdr *message, void *self) {
      static_cast<Mnl *>(self)->mirror_.take_dumped(message);
      return MNL_CB_OK;
    };
    for (int more = MNL_CB_OK; more != MNL_CB_STOP;) {
      const ssize_t length = mnl_socket_recvfrom(socket.get(), buffer_.data(), buffer_.size());
      if (length < 0) fail("cannot read the kernel's routes");
      more = mnl_cb_run(buffer_.data(), static_cast<std::size_t>(length), sequence_, socket.port(), take, this);
      if (more < 0 && errno == EINTR) return false;
      if (more < 0) fail("cannot read the kernel's routes");
    }
    return true;
  }

  // False when there are no more.
  bool take_events() {
    const auto take = [](const nlmsghdr *message, void *self) {
      ++static_cast<Mnl *>(self)->counters_.events;
      static_cast<Mnl *>(self)->mirror_.take_event(message);
      return MNL_CB_OK;
    };
    for (int i = 0; i < kMessagesAtOnce; ++i) {
      const ssize_t length = mnl_socket_recvfrom(events_.get(), buffer_.data(), buffer_.size());
      if (length < 0 && errno == EAGAIN) return false;
      last_event_ = Clock::now();
      if (length < 0 && errno == ENOBUFS) {
        ++counters_.losses;
        mirror_.doubt();
      } else if (length < 0 && errno != EINTR) {
        fail("cannot read the kernel's changes");
      } else if (length > 0) {
        mnl_cb_run(buffer_.data(), static_cast<std::size_t>(length), 0, 0, take, this);
      }
    }
    return true;
  }

  void take_all_events() {
    while (take_events()) {
    }
  }

  LiveTable &table_;
  KernelMirror mirror_;
  Socket events_{SOCK_NONBLOCK, RTMGRP_IPV6_ROUTE | RTMGRP_LINK};
  std::vector<char> buffer_ = std::vector<char>(64 << 10);
  uint32_t sequence_ = 0;
  Clock::time_point last_event_;
  Clock::time_point last_dump_;
  Clock::duration dump_duration_ = {};
  Counters counters_;
};

}  // namespace

std::unique_ptr<KernelRoutes> open_kernel_routes(LiveTable &table, KernelMirror::NameInterface name_interface,
                                                 uint32_t buffer) {
  return std::make_unique<Mnl>(table, std::move(name_interface), buffer);
}

}  // namespace live
