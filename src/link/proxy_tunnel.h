// The link's side of going through an HTTP proxy: hands the proxy decision to lws for
// each connection attempt and tells, when the attempt fails, what the proxy did.
// Worker thread only, like everything that touches lws.
#pragma once

#include <libwebsockets.h>

#include <optional>
#include <string>

#include "foundation/proxy_settings.h"

namespace zel {

class ProxyTunnel {
 public:
  // Sets the vhost up for one attempt to reach host over scheme: through the proxy the
  // uploads would use for it too, or straight. False when lws refused the proxy.
  bool apply(lws_vhost* vhost, const std::string& scheme, const std::string& host);
  // Looks, without consuming it, at what the proxy answered to CONNECT, before lws reads
  // it: lws reports a refusal without its status.
  void peek(lws_sockfd_type fd);
  // Logs what the proxy did when the attempt failed before the tunnel stood.
  void report_failure() const;
  bool active() const { return route.has_value(); }

 private:
  std::optional<ProxyRoute> route;
  long status = 0;  // the proxy's answer to CONNECT; 0 while none was seen
};

}  // namespace zel
