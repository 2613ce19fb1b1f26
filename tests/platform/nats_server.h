// A NATS server of the test's own, on a free port of the loopback and with its files in a temporary folder.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

class NatsServer {
 public:
  static bool installed() { return std::system("command -v nats-server >/dev/null") == 0; }

  // With these lines in its configuration.
  explicit NatsServer(const std::string &lines = "") {
    const int probe = connection();
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof(address);
    if (bind(probe, reinterpret_cast<sockaddr *>(&address), size) == 0)
      getsockname(probe, reinterpret_cast<sockaddr *>(&address), &size);
    port_ = ntohs(address.sin_port);
    close(probe);
    char folder[] = "/tmp/nats_server_XXXXXX";
    if (mkdtemp(folder) != nullptr) folder_ = folder;
    std::ofstream(folder_ + "/conf") << "listen: 127.0.0.1:" << port_ << "\nmax_payload: 17MB\nwrite_deadline: 10s\n"
                                     << "jetstream { store_dir: " << folder_ << ", max_file_store: 10GB }\n"
                                     << lines;
    start();
  }
  ~NatsServer() {
    if (getpid() != owner_) return;
    stop();
    std::filesystem::remove_all(folder_);
  }

  // Returns when it answers.
  void start() {
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(open("/dev/null", O_RDWR), 2);
      execlp("nats-server", "nats-server", "-c", (folder_ + "/conf").c_str(), nullptr);
      _exit(127);
    }
    for (int fd = -1; fd < 0; usleep(2000))
      if ((fd = connected()) >= 0) close(fd);
  }
  void stop() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  const std::string &folder() const { return folder_; }
  std::string address(const std::string &scheme = "nats://") const {
    return scheme + "127.0.0.1:" + std::to_string(port_);
  }
  // -1 while it does not answer.
  int connected() const {
    const int fd = connection();
    const sockaddr_in address = {AF_INET, htons(port_), {htonl(INADDR_LOOPBACK)}, {}};
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) return fd;
    close(fd);
    return -1;
  }

 private:
  static int connection() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

  const pid_t owner_ = getpid();
  uint16_t port_ = 0;
  std::string folder_;
  pid_t pid_ = -1;
};
