#include "foundation/proxy_settings.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <mutex>

#include "foundation/log.h"

namespace zel {

namespace {

constexpr int kDefaultProxyPort = 1080;  // libcurl's

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string trim(const std::string& s) {
  size_t first = s.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::string();
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool percent_decode(const std::string& in, std::string* out) {
  out->clear();
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '%') {
      out->push_back(in[i]);
      continue;
    }
    int hi = i + 2 < in.size() ? hex_value(in[i + 1]) : -1;
    int lo = i + 2 < in.size() ? hex_value(in[i + 2]) : -1;
    if (hi < 0 || lo < 0) return false;
    out->push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  return true;
}

// Splits "host", "host:port", "[v6]" or "[v6]:port"; port stays "" when absent.
bool split_host_port(const std::string& in, std::string* host, std::string* port) {
  if (!in.empty() && in[0] == '[') {
    size_t close = in.find(']');
    if (close == std::string::npos) return false;
    *host = in.substr(1, close - 1);
    std::string rest = in.substr(close + 1);
    if (!rest.empty() && rest[0] != ':') return false;
    *port = rest.empty() ? std::string() : rest.substr(1);
    return true;
  }
  size_t colon = in.find(':');
  if (colon != std::string::npos && in.find(':', colon + 1) != std::string::npos) {
    *host = in;  // a bare IPv6 address, no port
    port->clear();
    return true;
  }
  *host = in.substr(0, colon);
  *port = colon == std::string::npos ? std::string() : in.substr(colon + 1);
  return true;
}

// An IP literal in binary form; bytes 0 for a name (which is never resolved here).
struct IpLiteral {
  unsigned char bytes[16] = {};
  size_t size = 0;  // 4, 16 or 0
};

IpLiteral ip_literal(const std::string& text) {
  IpLiteral ip;
  if (inet_pton(AF_INET, text.c_str(), ip.bytes) == 1)
    ip.size = 4;
  else if (inet_pton(AF_INET6, text.c_str(), ip.bytes) == 1)
    ip.size = 16;
  return ip;
}

// An address entry, "ADDR" or "ADDR/PREFIX", against an IP target of the same family. As
// libcurl reads them, prefix 0 (or none) compares the whole address; a prefix too long for
// the family, or not a number, makes the entry match nothing.
bool address_entry_matches(const std::string& entry, const IpLiteral& target) {
  size_t slash = entry.find('/');
  std::string addr = entry.substr(0, slash);
  if (addr.size() > 1 && addr.front() == '[' && addr.back() == ']')
    addr = addr.substr(1, addr.size() - 2);
  const IpLiteral net = ip_literal(addr);
  if (net.size == 0 || net.size != target.size) return false;
  size_t bits = net.size * 8;
  if (slash != std::string::npos) {
    const std::string prefix = entry.substr(slash + 1);
    if (prefix.empty() || prefix.size() > 3 ||
        prefix.find_first_not_of("0123456789") != std::string::npos)
      return false;
    bits = std::stoul(prefix);
    if (bits > net.size * 8) return false;
    if (bits == 0) bits = net.size * 8;
  }
  const size_t whole = bits / 8;
  if (std::memcmp(net.bytes, target.bytes, whole) != 0) return false;
  if (bits % 8 == 0) return true;
  const unsigned mask = 0xffu << (8 - bits % 8) & 0xffu;
  return ((net.bytes[whole] ^ target.bytes[whole]) & mask) == 0;
}

std::string first_env(std::initializer_list<const char*> names) {
  for (const char* name : names) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return std::string();
}

std::mutex g_mutex;
std::string g_override;    // guarded by g_mutex
ProxySettings g_settings;  // guarded by g_mutex

}  // namespace

std::string ProxyRoute::address() const {
  bool v6 = host.find(':') != std::string::npos;
  return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string ProxyRoute::redacted() const {
  return "http://" + (has_credentials() ? user + ":***@" : std::string()) + address();
}

std::string ProxyRoute::failure(long status) const {
  if (status == 0) return "Proxy " + address() + " unreachable";
  return "Proxy " + address() + " refused CONNECT with status " + std::to_string(status);
}

std::optional<ProxyRoute> parse_proxy_uri(const std::string& raw) {
  std::string rest = trim(raw);
  size_t sep = rest.find("://");
  if (sep != std::string::npos) {
    if (lower(rest.substr(0, sep)) != "http") return std::nullopt;
    rest = rest.substr(sep + 3);
  }
  // The last '@' ends the user information: a password may hold an unencoded '@'.
  ProxyRoute r;
  size_t at = rest.rfind('@');
  if (at != std::string::npos) {
    std::string userinfo = rest.substr(0, at);
    size_t colon = userinfo.find(':');
    if (!percent_decode(userinfo.substr(0, colon), &r.user)) return std::nullopt;
    if (colon != std::string::npos && !percent_decode(userinfo.substr(colon + 1), &r.password))
      return std::nullopt;
    rest = rest.substr(at + 1);
  }
  size_t slash = rest.find('/');
  if (slash != std::string::npos) {
    if (rest.find_first_not_of('/', slash) != std::string::npos) return std::nullopt;
    rest.resize(slash);
  }
  std::string port;
  if (!split_host_port(rest, &r.host, &port) || r.host.empty()) return std::nullopt;
  for (char c : r.host)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_' &&
        c != ':')
      return std::nullopt;
  if (port.empty()) {
    r.port = kDefaultProxyPort;
  } else {
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
      return std::nullopt;
    r.port = std::atoi(port.c_str());
    if (r.port < 1 || r.port > 65535) return std::nullopt;
  }
  return r;
}

bool no_proxy_matches(const std::string& no_proxy, const std::string& target) {
  std::string host = lower(target);
  if (!host.empty() && host.back() == '.') host.pop_back();
  if (host.size() > 1 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  const IpLiteral ip = ip_literal(host);
  size_t pos = 0;
  while (pos <= no_proxy.size()) {
    size_t end = no_proxy.find_first_of(", \t", pos);
    if (end == std::string::npos) end = no_proxy.size();
    std::string entry = lower(no_proxy.substr(pos, end - pos));
    pos = end + 1;
    if (entry == "*") return true;
    // An IP target meets only address entries, a name only name entries: nothing is
    // resolved to decide.
    if (ip.size != 0) {
      if (address_entry_matches(entry, ip)) return true;
      continue;
    }
    if (!entry.empty() && entry[0] == '.') entry.erase(0, 1);
    if (!entry.empty() && entry.back() == '.') entry.pop_back();
    if (entry.empty()) continue;
    if (host == entry) return true;
    if (host.size() > entry.size() &&
        host.compare(host.size() - entry.size(), entry.size(), entry) == 0 &&
        host[host.size() - entry.size() - 1] == '.')
      return true;
  }
  return false;
}

ProxySettings ProxySettings::read(const std::string& override_uri) {
  ProxySettings s;
  if (override_uri.empty()) {
    s.https_proxy = first_env({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"});
    // Like libcurl, no upper-case HTTP_PROXY: CGI programs get HTTP_* from request headers.
    s.http_proxy = first_env({"http_proxy", "all_proxy", "ALL_PROXY"});
  } else {
    s.https_proxy = s.http_proxy = override_uri;
  }
  s.no_proxy = first_env({"no_proxy", "NO_PROXY"});
  return s;
}

std::optional<ProxyRoute> ProxySettings::route_for(const std::string& scheme,
                                                   const std::string& target) const {
  std::string s = lower(scheme);
  const std::string& uri = (s == "wss" || s == "https") ? https_proxy
                           : (s == "ws" || s == "http") ? http_proxy
                                                        : std::string();
  if (uri.empty()) return std::nullopt;
  std::string host, port;
  if (!split_host_port(target, &host, &port) || no_proxy_matches(no_proxy, host))
    return std::nullopt;
  return parse_proxy_uri(uri);
}

bool set_proxy_override(const std::string& uri) {
  if (!uri.empty() && !parse_proxy_uri(uri)) {
    zel_log(LEVEL_ERR, "Proxy URI not understood, expected http://[user:password@]host:port\n");
    return false;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  g_override = uri;
  return true;
}

void capture_proxy_settings() {
  ProxySettings settings;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_settings = ProxySettings::read(g_override);
    settings = g_settings;
  }
  for (const auto& [kind, uri] : {std::make_pair("https", settings.https_proxy),
                                  std::make_pair("http", settings.http_proxy)}) {
    if (uri.empty()) continue;
    auto route = parse_proxy_uri(uri);
    // The raw text may hold a password: only the parsed, redacted form is ever shown.
    if (route)
      zel_log(LEVEL_NOTICE, "Proxy for %s targets: %s\n", kind, route->redacted().c_str());
    else
      zel_log(LEVEL_ERR, "Proxy for %s targets ignored: not an http:// proxy URI\n", kind);
  }
}

std::optional<ProxyRoute> proxy_route(const std::string& scheme, const std::string& host) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_settings.route_for(scheme, host);
}

}  // namespace zel
