#include "link/proxy_tunnel.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "foundation/log.h"

namespace zel {

namespace {
// lws keeps "user:password" base64-encoded in a 128-byte field.
constexpr size_t kMaxCredentials = 93;
}  // namespace

bool ProxyTunnel::apply(lws_vhost* vhost, const std::string& scheme, const std::string& host) {
  route = proxy_route(scheme, host);
  status = 0;
  if (vhost == nullptr) return false;
  if (!route) {
    // lws takes http_proxy from the environment on its own; port 0 turns that off, so the
    // link goes straight exactly when an upload to the same host would.
    if (std::getenv("http_proxy") != nullptr) lws_set_proxy(vhost, ":0");
    return true;
  }
  std::string proxy_arg = route->address();
  if (route->has_credentials()) {
    if (route->user.size() + 1 + route->password.size() > kMaxCredentials) {
      zel_log(LEVEL_ERR, "Proxy credentials too long for the link: %s\n", route->redacted().c_str());
      return false;
    }
    proxy_arg = route->user + ":" + route->password + "@" + proxy_arg;
  }
  int rc = lws_set_proxy(vhost, proxy_arg.c_str());
  std::fill(proxy_arg.begin(), proxy_arg.end(), '\0');
  if (rc != 0) {
    zel_log(LEVEL_ERR, "Proxy %s not accepted for the link\n", route->redacted().c_str());
    return false;
  }
  zel_log(LEVEL_NOTICE, "Connecting through proxy %s\n", route->redacted().c_str());
  return true;
}

void ProxyTunnel::peek(lws_sockfd_type fd) {
  if (!route || status != 0 || fd < 0) return;
  char answer[16];
  ssize_t n = recv(fd, answer, sizeof answer, MSG_PEEK | MSG_DONTWAIT);
  // "HTTP/1.x NNN ..."
  if (n < 12 || std::memcmp(answer, "HTTP/1.", 7) != 0 || answer[8] != ' ') return;
  long code = 0;
  for (int i = 9; i < 12; ++i) {
    if (answer[i] < '0' || answer[i] > '9') return;
    code = code * 10 + (answer[i] - '0');
  }
  status = code;
}

void ProxyTunnel::report_failure() const {
  // After a 200 the tunnel stood: what failed lies beyond the proxy.
  if (!route || status == 200) return;
  zel_log(LEVEL_ERR, "%s\n", route->failure(status).c_str());
}

}  // namespace zel
