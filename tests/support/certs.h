// A CA, a server certificate (localhost, 127.0.0.1, *.blob.localhost) and a client
// certificate, made once per test process with the openssl command.
#pragma once

#include <string>

namespace zel_test {

struct TestCerts {
  std::string dir;
  std::string ca;
  std::string server_cert;
  std::string server_key;
  std::string client_cert;
  std::string client_key;
};

const TestCerts& test_certs();

// A fresh temporary directory under /tmp (removed by nobody: tests are short-lived).
std::string make_temp_dir(const std::string& prefix);

// A TCP port on 127.0.0.1 that was free a moment ago.
int free_port();

}  // namespace zel_test
