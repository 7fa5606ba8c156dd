// tinyproxy on 127.0.0.1 with its own configuration, port, log and pid file in a temporary
// directory. stop() kills it as a crash would; start() brings it back on the same port.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "support/certs.h"

namespace zel_test {

class Tinyproxy {
 public:
  const int port = free_port();
  const std::string dir = make_temp_dir("zel-tinyproxy-");

  // extra: configuration lines, e.g. "BasicAuth user password" or "ConnectPort 1".
  explicit Tinyproxy(const std::string& extra = "") {
    std::ofstream(dir + "/conf") << "Port " << port << "\nListen 127.0.0.1\nLogLevel Connect\n"
                                 << "LogFile \"" << dir << "/log\"\nPidFile \"" << dir << "/pid\"\n"
                                 << extra << "\n";
    start();
  }
  ~Tinyproxy() { stop(); }
  void start() {  // retried: the port of a proxy just killed may not be free at once
    std::string conf = dir + "/conf";
    char* argv[] = {const_cast<char*>("tinyproxy"), const_cast<char*>("-d"),
                    const_cast<char*>("-c"), conf.data(), nullptr};
    for (int i = 0; i < 50 && pid_ <= 0; ++i) {
      posix_spawnp(&pid_, "tinyproxy", nullptr, nullptr, argv, environ);
      int ready = 0;  // the pid file is written once it listens
      for (int j = 0; j < 50 && !(std::ifstream(dir + "/pid") >> ready); ++j)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (ready != pid_) stop();
    }
  }
  void stop() {
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    std::remove((dir + "/pid").c_str());
    pid_ = 0;
  }
  std::string uri(const std::string& userinfo = "") const {
    return "http://" + userinfo + (userinfo.empty() ? "" : "@") +
           "127.0.0.1:" + std::to_string(port);
  }
  // How many tunnels to "host:port" the proxy was asked for.
  size_t connects_to(const std::string& host_port) const {
    std::stringstream log;
    log << std::ifstream(dir + "/log").rdbuf();
    size_t n = 0;
    for (std::string line; std::getline(log, line);)
      n += line.find(": CONNECT " + host_port + " HTTP/") != std::string::npos;
    return n;
  }

 private:
  int pid_ = 0;
};

}  // namespace zel_test
