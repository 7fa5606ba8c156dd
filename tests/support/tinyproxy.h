// Debian's tinyproxy as a test peer on 127.0.0.1: its own configuration, port and log in a
// temporary directory; stop() kills it as a crash would, start() brings it back on the port.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "support/certs.h"

namespace zel_test {

class Tinyproxy {
 public:
  // extra: configuration lines, e.g. "BasicAuth user password" or "ConnectPort 1".
  explicit Tinyproxy(const std::string& extra = "")
      : dir_(make_temp_dir("zel-tinyproxy-")), port_(free_port()) {
    std::ofstream(dir_ + "/tinyproxy.conf")
        << "Port " << port_ << "\nListen 127.0.0.1\nTimeout 30\nLogLevel Info\nLogFile \""
        << dir_ << "/tinyproxy.log\"\n" << extra << "\n";
    start();
  }
  ~Tinyproxy() { stop(); }

  void start() {
    std::string conf = dir_ + "/tinyproxy.conf";
    size_t starts = count("Starting main loop");
    char* argv[] = {const_cast<char*>("tinyproxy"), const_cast<char*>("-d"),
                    const_cast<char*>("-c"), conf.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawnp(&pid_, "tinyproxy", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    for (int i = 0; i < 100 && count("Starting main loop") == starts; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  int port() const { return port_; }
  std::string uri(const std::string& userinfo = "") const {
    return "http://" + (userinfo.empty() ? "" : userinfo + "@") + "127.0.0.1:" +
           std::to_string(port_);
  }
  std::string log() const {
    std::ostringstream s;
    s << std::ifstream(dir_ + "/tinyproxy.log").rdbuf();
    return s.str();
  }
  size_t count(const std::string& fragment) const {
    std::string text = log();
    size_t n = 0;
    for (size_t at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1))
      ++n;
    return n;
  }
  // Requests to open a tunnel to "host:port" that the proxy received.
  size_t connects_to(const std::string& host_port) const {
    return count("CONNECT " + host_port + " HTTP");
  }

 private:
  std::string dir_;
  int port_;
  pid_t pid_ = -1;
};

}  // namespace zel_test
