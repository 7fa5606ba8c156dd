#include "upload/curl_proxy.h"

namespace zel {

std::optional<ProxyRoute> apply_proxy(CURL* handle, const std::string& host) {
  std::optional<ProxyRoute> route = proxy_route("https", host);
  // An empty proxy and an empty exception list keep libcurl from consulting the
  // environment, so it cannot decide otherwise than the link did.
  curl_easy_setopt(handle, CURLOPT_NOPROXY, "");
  if (!route) {
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    return route;
  }
  std::string uri = "http://" + route->address();
  curl_easy_setopt(handle, CURLOPT_PROXY, uri.c_str());
  curl_easy_setopt(handle, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
  curl_easy_setopt(handle, CURLOPT_HTTPPROXYTUNNEL, 1L);
  // Set even when empty, libcurl would send empty credentials: unset them instead.
  const bool auth = route->has_credentials();
  curl_easy_setopt(handle, CURLOPT_PROXYUSERNAME, auth ? route->user.c_str() : nullptr);
  curl_easy_setopt(handle, CURLOPT_PROXYPASSWORD, auth ? route->password.c_str() : nullptr);
  // libcurl's verbose output shows the Basic token (the password, merely encoded) only
  // through curl_trace, which hides it.
  if (auth) curl_easy_setopt(handle, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
  return route;
}

std::string proxy_failure(CURL* handle, CURLcode res, const ProxyRoute& route) {
  long connect_code = 0;
  curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &connect_code);
  if (connect_code >= 200 && connect_code <= 299) return std::string();
  if (connect_code != 0) return route.failure(connect_code);
  // No answer to CONNECT at all: the proxy was not there, or not speaking.
  if (res == CURLE_OK || res == CURLE_ABORTED_BY_CALLBACK) return std::string();
  return route.failure(0);
}

}  // namespace zel
