#include "support/certs.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace zel_test {

std::string make_temp_dir(const std::string& prefix) {
  std::string pattern = "/tmp/" + prefix + "XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  return std::string(buf.data());
}

const TestCerts& test_certs() {
  static const TestCerts certs = [] {
    TestCerts c;
    c.dir = make_temp_dir("zel-certs-");
    std::string cmd = std::string("bash '") + ZEL_SOURCE_DIR + "/tools/cloud/make_certs.sh' '" +
                      c.dir + "'";
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("make_certs.sh failed");
    c.ca = c.dir + "/ca.pem";
    c.server_cert = c.dir + "/server.pem";
    c.server_key = c.dir + "/server.key";
    c.client_cert = c.dir + "/client.pem";
    c.client_key = c.dir + "/client.key";
    return c;
  }();
  return certs;
}

int free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    throw std::runtime_error("bind failed");
  }
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

}  // namespace zel_test
