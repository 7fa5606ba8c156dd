#include "upload/curl_proxy.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>

namespace zel {

namespace {

// libcurl's verbose output, as it writes it by itself, except that the credentials sent
// to the proxy are blanked: the Basic token is the password, merely encoded.
int redacting_debug(CURL*, curl_infotype type, char* data, size_t size, void*) {
  static const char* const kPrefix[] = {"* ", "< ", "> "};
  if (type != CURLINFO_TEXT && type != CURLINFO_HEADER_IN && type != CURLINFO_HEADER_OUT) return 0;
  std::string text(data, size);
  static const char kAuth[] = "Proxy-Authorization:";
  for (size_t line = 0; line < text.size();) {
    size_t end = text.find('\n', line);
    if (end == std::string::npos) end = text.size();
    if (strncasecmp(text.c_str() + line, kAuth, sizeof kAuth - 1) == 0) {
      size_t value = line + sizeof kAuth - 1;
      size_t stop = end > value && text[end - 1] == '\r' ? end - 1 : end;
      text.replace(value, stop - value, " ***");
      end = text.find('\n', value);
      if (end == std::string::npos) end = text.size();
    }
    line = end + 1;
  }
  std::fputs(kPrefix[type], stderr);
  std::fwrite(text.data(), 1, text.size(), stderr);
  return 0;
}

}  // namespace

std::optional<ProxyRoute> apply_proxy(CURL* handle, const std::string& host) {
  std::optional<ProxyRoute> route = proxy_route("https", host);
  // An empty proxy and an empty exception list keep libcurl from consulting the
  // environment, so it cannot decide otherwise than the link did.
  curl_easy_setopt(handle, CURLOPT_NOPROXY, "");
  curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, nullptr);
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
  if (auth) {
    curl_easy_setopt(handle, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
    curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, &redacting_debug);
  }
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
