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

  static std::string free_port() {
    const int probe = connection();
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof(address);
    if (bind(probe, reinterpret_cast<sockaddr *>(&address), size) == 0)
      getsockname(probe, reinterpret_cast<sockaddr *>(&address), &size);
    close(probe);
    return std::to_string(ntohs(address.sin_port));
  }

  // With these lines in its configuration.
  explicit NatsServer(const std::string &lines = "", const std::string &write_deadline = "10s") {
    char folder[] = "/tmp/nats_server_XXXXXX";
    if (mkdtemp(folder) != nullptr) folder_ = folder;
    std::ofstream(folder_ + "/conf") << "listen: 127.0.0.1:" << port_
                                     << "\nmax_payload: 17MB\nwrite_deadline: " << write_deadline
                                     << "\njetstream { store_dir: " << folder_ << ", max_file_store: 10GB }\n"
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
    for (int fd = -1; fd < 0 && waitpid(pid_, nullptr, WNOHANG) == 0; usleep(2000))
      if ((fd = connected()) >= 0) close(fd);
  }
  void stop() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  const std::string &folder() const { return folder_; }
  std::string address(const std::string &scheme = "nats://") const { return scheme + "127.0.0.1:" + port_; }
  // What it, or the one of its cluster that knows, answers to a question; empty without an answer in time.
  std::string ask(const std::string &subject) const {
    const int fd = connected();
    const timeval longest = {2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof(longest));
    const std::string text = "CONNECT {\"verbose\":false}\r\nSUB ask 1\r\nPUB " + subject + " ask 0\r\n\r\n";
    std::string all(1 << 16, '\0');
    size_t size = 0;
    ssize_t got = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    while (got > 0 && (all.find("MSG ask") == all.npos || all.find("\r\n", all.find("MSG ask") + 20) == all.npos)) {
      got = recv(fd, &all[size], all.size() - size, 0);
      size += static_cast<size_t>(got > 0 ? got : 0);
    }
    close(fd);
    all.resize(size);
    return all.substr(std::min(size, all.find("MSG ask")));
  }
  // -1 while it does not answer.
  int connected() const {
    const int fd = connection();
    const auto port = static_cast<uint16_t>(std::stoul(port_));
    const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) return fd;
    close(fd);
    return -1;
  }

 private:
  static int connection() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

  const pid_t owner_ = getpid();
  const std::string port_ = free_port();
  std::string folder_;
  pid_t pid_ = -1;
};
