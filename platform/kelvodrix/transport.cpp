#include "transport.h"

#include <dlfcn.h>

#include <string>
#include <string_view>

#include "inbox.h"
#include "link.h"

namespace kelvodrix {

namespace {

// Null for the sockets of this host, and where the library for the others is missing.
struct Choice {
  int32_t status;
  const Transport *other;
};

Choice choose(const char *text) {
  if (text == nullptr) return {KELVODRIX_ERR_INVALID, nullptr};
  const std::string_view endpoint(text);
  const std::string_view scheme = endpoint.substr(0, endpoint.find("://") + 3);
  if (scheme != "nats://" && scheme != "tls://" && scheme != "nats-stream://" && scheme != "tls-stream://")
    return {KELVODRIX_OK, nullptr};
  static const auto *const nats = []() -> const Transport * {
    Dl_info own{};  // it is in the same folder
    dladdr(reinterpret_cast<void *>(&make_link), &own);
    std::string path = own.dli_fname != nullptr ? own.dli_fname : "";
    path.erase(path.rfind('/') + 1).append("libkelvodrix_nats.so");
    void *const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    return library != nullptr ? static_cast<const Transport *>(dlsym(library, "kelvodrix_nats")) : nullptr;
  }();
  const bool fits = nats != nullptr && nats->version == kTransportVersion;
  return fits ? Choice{KELVODRIX_OK, nats} : Choice{KELVODRIX_ERR_TRANSPORT, nullptr};
}

}  // namespace

int32_t make_link(const char *endpoint, const kelvodrix_options &options, std::shared_ptr<Link> &link) {
  const auto [status, other] = choose(endpoint);
  if (status != KELVODRIX_OK) return status;
  return other != nullptr ? other->make_link(endpoint, options, link) : make_socket_link(endpoint, options, link);
}

int32_t make_inbox(const char *endpoint, std::unique_ptr<Inbox> &inbox) {
  const auto [status, other] = choose(endpoint);
  if (status != KELVODRIX_OK) return status;
  return other != nullptr ? other->make_inbox(endpoint, inbox) : make_socket_inbox(endpoint, inbox);
}

int32_t make_tap(const char *endpoint, const kelvodrix_tap_options &options, std::unique_ptr<Tap> &tap) {
  const auto [status, other] = choose(endpoint);
  if (status != KELVODRIX_OK) return status;
  return other != nullptr ? other->make_tap(endpoint, options, tap) : KELVODRIX_ERR_ENDPOINT;
}

}  // namespace kelvodrix
