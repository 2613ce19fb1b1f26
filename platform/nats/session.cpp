#include "session.h"

#include <netdb.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <new>
#include <random>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "../kelvodrix/process.h"
#include "../kelvodrix/status.h"

namespace kelvodrix {

namespace {

constexpr int64_t kReconnectMs = 50, kWriteDeadlineMs = 2000, kPingMs = 2000, kLastFlushMs = 500;

struct Sessions {
  std::mutex mutex;
  std::map<std::pair<std::string, Use>, std::weak_ptr<Session>> by_servers;
};

// Never destroyed: threads may still use them while the process exits.
Sessions &all() {
  static Sessions &instance = *new Sessions;
  return instance;
}

std::atomic<pid_t> user = 0;  // the process that has used the library
std::atomic<int> connections = 0;

// What is still in buffers then would be lost with the library's threads, and OpenSSL is about to go, which they use.
void at_exit() {
  if (forked()) return;
  finish_links();
  finish_streams();
  std::vector<std::shared_ptr<Session>> sessions;
  {
    std::lock_guard lock(all().mutex);
    for (const auto &[servers, session] : all().by_servers) sessions.push_back(session.lock());
  }
  int own = 0;
  for (const auto &session : sessions) {
    if (session == nullptr) continue;
    session->flush(kLastFlushMs);
    natsConnection_Close(session->nc());
    ++own;
  }
  // The thread of a writer may be about to end another one.
  for (int64_t waited_ms = 0; connections > own && waited_ms < kLastFlushMs; ++waited_ms) nats_Sleep(1);
}

// OpenSSL registers its own end when it is used first: before this, so that it comes after.
void register_at_exit() {
  const SignalsHeldBack held_back;  // the library's threads begin here
  natsOptions *options = nullptr;
  if (natsOptions_Create(&options) == NATS_OK) natsOptions_SetSecure(options, true);
  natsOptions_Destroy(options);
  std::atexit(at_exit);
}

void require(natsStatus status) {
  if (status == NATS_NO_MEMORY) throw std::bad_alloc();
  if (status != NATS_OK) throw std::system_error(status, std::generic_category(), natsStatus_GetText(status));
}

bool known_host(const std::string &server) {
  std::string host = server.substr(0, server.rfind(':'));
  if (host.starts_with('[')) host = host.substr(1, host.find(']') - 1);
  addrinfo *found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, nullptr, &found) != 0) return false;
  freeaddrinfo(found);
  return true;
}

// The file has lines KEY=VALUE, empty ones, and comments that start with #.
bool apply_settings(natsOptions *options, Settings &settings) {
  const char *const path = secure_getenv("KELVODRIX_NATS");
  if (path == nullptr) return true;
  enum Key { kUser, kPassword, kToken, kCredentials, kCa, kCertificate, kKey, kInbox, kReplicas, kMaxBytes, kKeys };
  static constexpr const char *kNames[] = {"user",        "password", "token", "credentials", "ca",
                                           "certificate", "key",      "inbox", "replicas",    "max_bytes"};
  std::string values[kKeys];
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    const auto *const name = std::find(kNames, kNames + kKeys, line.substr(0, equals));
    if (equals == line.npos || name == kNames + kKeys) return false;
    values[name - kNames] = line.substr(equals + 1);
  }
  const auto given = [&](Key key) { return values[key].empty() ? nullptr : values[key].c_str(); };
  const auto number = [&](Key key, int64_t &to) {
    const std::string &text = values[key];
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), to);
    return text.empty() || (error == std::errc() && end == text.data() + text.size() && to > 0);
  };
  if (!number(kReplicas, settings.replicas) || !number(kMaxBytes, settings.max_bytes)) return false;
  if (given(kInbox)) settings.inbox_prefix = given(kInbox);
  return file.eof() && (!given(kInbox) || natsOptions_SetCustomInboxPrefix(options, given(kInbox)) == NATS_OK) &&
         (!given(kUser) || natsOptions_SetUserInfo(options, given(kUser), given(kPassword)) == NATS_OK) &&
         (!given(kToken) || natsOptions_SetToken(options, given(kToken)) == NATS_OK) &&
         (!given(kCa) || natsOptions_LoadCATrustedCertificates(options, given(kCa)) == NATS_OK) &&
         (!given(kCertificate) ||
          natsOptions_LoadCertificatesChain(options, given(kCertificate), given(kKey)) == NATS_OK) &&
         (!given(kCredentials) ||
          (access(given(kCredentials), R_OK) == 0 &&
           natsOptions_SetUserCredentialsFromFiles(options, given(kCredentials), nullptr) == NATS_OK));
}

int32_t status_of(natsStatus status, const std::vector<std::string> &hosts) {
  switch (status) {
    case NATS_CONNECTION_AUTH_FAILED:
      return KELVODRIX_ERR_CREDENTIALS;
    case NATS_SSL_ERROR:
    case NATS_SECURE_CONNECTION_WANTED:
    case NATS_SECURE_CONNECTION_REQUIRED:
      return KELVODRIX_ERR_CERTIFICATE;
    default:
      return std::all_of(hosts.begin(), hosts.end(), known_host) ? KELVODRIX_ERR_SERVER : KELVODRIX_ERR_HOST;
  }
}

}  // namespace

bool forked() { return user != 0 && user != getpid(); }

uint64_t random_number() {
  std::random_device device;
  return uint64_t{device()} << 32 | device();
}

// SCHEME://HOST:PORT[,HOST:PORT...]/NAME, with /RECEIVER[?from=WHERE] behind that of a stream where one receives.
int32_t parse_place(const char *endpoint, bool receives, Place &place) {
  const std::string_view whole(endpoint);
  const size_t colon = whole.find("://"), start = colon + 3, slash = std::min(whole.find('/', start), whole.size());
  const std::string_view hosts = whole.substr(start, slash - start);
  const bool tls = whole.starts_with("tls"), streams = whole.substr(0, colon).ends_with("-stream");
  std::string_view name = whole.substr(std::min(slash + 1, whole.size())), receiver = "-", from = "resume";
  if (streams && receives) {
    const size_t question = name.find("?from=");
    if (question != name.npos) from = name.substr(question + 6);
    name = name.substr(0, question);
    const size_t second = std::min(name.find('/'), name.size());
    receiver = name.substr(std::min(second + 1, name.size()));
    name = name.substr(0, second);
  }
  const auto bad = [](std::string_view text) {
    return text.empty() || text.size() > 200 || std::any_of(text.begin(), text.end(), [](unsigned char c) {
             return c <= ' ' || c >= 0x7F ||
                    std::string_view("./\\*?>").find(static_cast<char>(c)) != std::string_view::npos;
           });
  };
  // Passwords are not for endpoints, which others may see.
  if (hosts.empty() || hosts.find_first_of("@ \t") != hosts.npos || hosts.front() == ',' || hosts.back() == ',' ||
      bad(name) || bad(receiver) || (from != "table" && from != "resume" && from != "now"))
    return KELVODRIX_ERR_ENDPOINT;
  place.servers = (tls ? "tls://" : "nats://") + std::string(hosts);
  place.subject = (streams ? "drix-stream." : "drix.") + std::string(name) + ".";
  if (streams) place.stream = "drix-" + std::string(name);
  place.bucket = std::string(kBucket) + place.stream;
  place.floor = "$KV." + place.stream + '.' + (receives ? std::string(receiver) : "writer.current");
  place.alive = "drix-receiver." + std::string(name) + '.' + std::string(receiver);
  place.from = from;
  return forked() ? KELVODRIX_ERR_FORKED : KELVODRIX_OK;
}

std::string id_subject(std::span<const DrixSendDescriptor> messages) {
  const uint32_t id = messages[0].id;
  std::string text(8, '0');
  for (size_t i = 0; i < 8; ++i) text[i] = "0123456789abcdef"[id >> (28 - 4 * i) & 15];
  const bool mixed = std::any_of(messages.begin(), messages.end(), [id](const auto &each) { return each.id != id; });
  return mixed ? "mixed" : text;
}

int32_t Session::get(const std::string &servers, Use use, int64_t timeout_ms, std::shared_ptr<Session> &session) {
  const auto known = [&] {
    std::lock_guard lock(all().mutex);
    if (user == 0) register_at_exit();
    user = getpid();
    session = all().by_servers[{servers, use}].lock();
    if (session != nullptr && session->closed()) session.reset();
    return session != nullptr;
  };
  if (known()) return KELVODRIX_OK;
  auto made = std::make_shared<Session>();
  if (const int32_t status = made->connect(servers, use, timeout_ms); status != KELVODRIX_OK) return status;
  if (known()) return KELVODRIX_OK;  // by another thread meanwhile
  std::lock_guard lock(all().mutex);
  all().by_servers[{servers, use}] = session = made;
  return KELVODRIX_OK;
}

int32_t Session::connect(const std::string &servers, Use use, int64_t timeout_ms) {
  const size_t start = servers.find("://") + 3;
  std::istringstream list(servers.substr(start));
  std::vector<std::string> hosts, urls;
  std::vector<const char *> pointers;
  for (std::string host; std::getline(list, host, ',');) {
    hosts.push_back(host);
    urls.push_back(servers.substr(0, start) + host);
  }
  pointers.reserve(urls.size());
  for (const std::string &url : urls) pointers.push_back(url.c_str());
  const SignalsHeldBack held_back;
  natsOptions *created = nullptr;
  require(natsOptions_Create(&created));
  const std::unique_ptr<natsOptions, Destroy> options(created);
  if (natsOptions_SetServers(created, pointers.data(), static_cast<int>(pointers.size())) != NATS_OK)
    return KELVODRIX_ERR_ENDPOINT;
  if (!apply_settings(created, settings_)) return KELVODRIX_ERR_SETTINGS;
  if (servers.starts_with("tls")) require(natsOptions_SetSecure(created, true));
  natsOptions_SetTimeout(created, timeout_ms);
  if (use == Use::receiving || use == Use::joining) {
    natsOptions_SetSendAsap(created, true);
    // One call of the system for most messages that are sent, and for several that are received.
    natsOptions_SetIOBufSize(created, use == Use::receiving ? 256 << 10 : 64 << 10);
  }
  natsOptions_UseGlobalMessageDelivery(created, use == Use::tapping);
  natsOptions_SetMaxReconnect(created, -1);
  natsOptions_SetReconnectWait(created, kReconnectMs);
  natsOptions_SetReconnectJitter(created, kReconnectMs, kReconnectMs);
  natsOptions_SetReconnectBufSize(created, 1);  // or what is sent meanwhile would reach whoever is there later
  natsOptions_SetPingInterval(created, kPingMs);
  natsOptions_SetWriteDeadline(created, kWriteDeadlineMs);
  using Flag = std::shared_ptr<std::atomic<bool>>;
  auto flag = std::make_unique<Flag>(denied_);  // the last call of these may come after the session
  const auto note_denial = [](natsConnection *, natsSubscription *, natsStatus status, void *denied) {
    if (status == NATS_NOT_PERMITTED) **static_cast<Flag *>(denied) = true;
  };
  const auto forget = [](natsConnection *, void *denied) { delete static_cast<Flag *>(denied); };
  natsOptions_SetErrorHandler(created, note_denial, flag.get());
  natsOptions_SetClosedCB(created, forget, flag.get());
  const natsStatus status = natsConnection_Connect(&nc_, created);
  if (status != NATS_OK) return status_of(status, hosts);
  ++connections;
  static_cast<void>(flag.release());
  return KELVODRIX_OK;
}

Session::~Session() {
  if (nc_ == nullptr || forked()) return;
  flush(kLastFlushMs);
  natsConnection_Close(nc_);
  buried_.clear();
  natsConnection_Destroy(nc_);
  --connections;
}

void Session::flush(int64_t timeout_ms) const {
  if (connected()) natsConnection_FlushTimeout(nc_, timeout_ms);
}

void Session::bury(natsSubscription *subscription) {
  natsSubscription_Unsubscribe(subscription);
  const std::lock_guard lock(mutex_);
  buried_.emplace_back(subscription);
  if (connected() && natsConnection_FlushTimeout(nc_, kLastFlushMs) == NATS_OK) buried_.clear();
}

std::string Session::inbox() const {
  return settings_.inbox_prefix + "." + std::to_string(random_number()) + std::to_string(random_number());
}

int32_t Session::status() const {
  if (!connected()) return KELVODRIX_ERR_SERVER;
  return *denied_ ? KELVODRIX_ERR_CREDENTIALS : KELVODRIX_OK;
}

Message make_message(const std::string &subject, const std::string &reply, std::span<const uint8_t> bytes,
                     const char *header, const std::string &value) {
  natsMsg *made = nullptr;
  require(natsMsg_Create(&made, subject.c_str(), reply.empty() ? nullptr : reply.c_str(),
                         reinterpret_cast<const char *>(bytes.data()), static_cast<int>(bytes.size())));
  Message message(made);
  set_header(made, header, value);
  return message;
}

void set_header(natsMsg *message, const char *name, const std::string &value) {
  require(natsMsgHeader_Set(message, name, value.c_str()));
}

Subscription::Subscription(std::shared_ptr<Session> session, const std::string &subject, Take take)
    : session_(std::move(session)) {
  auto owned = std::make_unique<Take>(std::move(take));
  const auto call = [](natsConnection *nc, natsSubscription *, natsMsg *message, void *function) {
    guarded([&]() -> int32_t {
      (*static_cast<Take *>(function))(nc, Message(message));
      return KELVODRIX_OK;
    });
  };
  const SignalsHeldBack held_back;
  require(natsConnection_Subscribe(&sub_, session_->nc(), subject.c_str(), call, owned.get()));
  natsSubscription_SetPendingLimits(sub_, -1, -1);
  natsSubscription_SetOnCompleteCB(
      sub_, [](void *function) { delete static_cast<Take *>(function); }, owned.release());
}

void Subscription::drain(int64_t timeout_ms) {
  if (natsSubscription_DrainTimeout(sub_, timeout_ms) == NATS_OK)
    natsSubscription_WaitForDrainCompletion(sub_, timeout_ms);
}

Subscription::~Subscription() {
  if (forked()) return;
  session_->bury(sub_);
}

}  // namespace kelvodrix
