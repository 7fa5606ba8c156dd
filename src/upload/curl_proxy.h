// The uploads' side of going through an HTTP proxy: the same decision as the link's,
// applied to a libcurl handle, and the words for a proxy that refused or was not there.
#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>

#include "foundation/proxy_settings.h"

namespace zel {

// Points the handle at the proxy for this https host (or straight at it) and returns
// the route taken. libcurl's own reading of the environment is turned off either way.
std::optional<ProxyRoute> apply_proxy(CURL* handle, const std::string& host);

// After a failed transfer through route: what the proxy did, or "" when the tunnel stood
// and the failure lies beyond it.
std::string proxy_failure(CURL* handle, CURLcode res, const ProxyRoute& route);

}  // namespace zel
