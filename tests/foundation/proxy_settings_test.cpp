// The proxy URI parser and no_proxy matching as tables, odd rows included.
#include <gtest/gtest.h>

#include "foundation/proxy_settings.h"

namespace zt {
namespace {

// "user|password|host|port", or "-" when the URI is refused.
std::string parsed(const std::string& uri) {
  auto r = zel::parse_proxy_uri(uri);
  return r ? r->user + "|" + r->password + "|" + r->host + "|" + std::to_string(r->port) : "-";
}

TEST(ProxyUri, Table) {
  const std::pair<const char*, const char*> rows[] = {
      {"http://proxy.example:3128", "||proxy.example|3128"}, {"proxy.example", "||proxy.example|1080"},
      {"HTTP://Proxy.Example:8080/", "||Proxy.Example|8080"}, {" \thttp://p:1\n", "||p|1"},
      {"http://alice:s3c%2Er3t@p:3128", "alice|s3c.r3t|p|3128"}, {"http://alice:p@ss@p:1", "alice|p@ss|p|1"},
      {"http://alice@p:1", "alice||p|1"}, {"http://:pw@p:1", "|pw|p|1"}, {"http://%zz@p:1", "-"}, {"http://a:%4@p:1", "-"},
      {"http://[::1]:3128", "||::1|3128"}, {"http://[fd00::1]", "||fd00::1|1080"}, {"fd00::1", "||fd00::1|1080"},
      {"http://[::1", "-"}, {"http://[::1]x", "-"}, {"https://p:3128", "-"}, {"socks5://p:1080", "-"}, {"", "-"},
      {"http://", "-"}, {"http://p q:1", "-"}, {"http://p:0", "-"}, {"http://p:65535", "||p|65535"},
      {"http://p:65536", "-"}, {"http://p:80a", "-"}, {"http://p:", "||p|1080"}, {"http://p:1/path", "-"},
      {"http://p:1//", "||p|1"},
  };
  for (const auto& [uri, want] : rows) EXPECT_EQ(parsed(uri), want) << "'" << uri << "'";
}

// Whether a wss target goes straight (true) or through the proxy. IP literals meet only
// addresses and ranges, names only names: nothing is resolved.
TEST(NoProxy, Table) {
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"*", "any.example:443", true}, {"", "any.example", false}, {",,,  ", "any.example", false},
      {"example.com", "example.com", true}, {"example.com", "www.example.com:443", true},
      {"example.com", "notexample.com", false}, {".example.com", "example.com", true},
      {".example.com", "a.example.com", true}, {"example.com.", "A.EXAMPLE.COM.", true},
      {"a.com\tb.com,c.com", "b.com", true}, {"a.com b.com,c.com", "c.com", true},
      {"127.0.0.1", "127.0.0.1:8443", true}, {"127.0.0.1", "localhost", false}, {"localhost", "127.0.0.1", false},
      {"10.0.0.0/8", "10.1.2.3:443", true}, {"10.0.0.0/8", "11.0.0.1", false}, {"10.0.0.0/8", "10.1.2.3.nip.io", false},
      {"192.168.1.0/25", "192.168.1.127", true}, {"192.168.1.0/25", "192.168.1.128", false},
      {"10.0.0.1/33", "10.0.0.1", false}, {"10.0.0.1/0", "10.0.0.1", true}, {"10.0.0.0/0", "10.0.0.1", false},
      {"10.0.0.0/x", "10.0.0.1", false}, {"10.0.0.0/", "10.0.0.0", false}, {"a.com, 10.0.0.0/8", "10.9.9.9", true},
      {"fd00::/8", "[fd12::1]:443", true}, {"fd00::/8", "[fe00::1]", false}, {"[::1]", "[::1]:8443", true},
      {"::1/128", "[0:0::1]", true}, {"fd00::/8", "10.0.0.1", false}, {"::/8", "0.1.2.3", false}, {"1.2.3", "10.1.2.3", false},
      {"10.0.0.0/8", "[::ffff:10.0.0.1]", false},
      {"2001:db8::/33", "[2001:db8:7fff::1]", true}, {"2001:db8::/33", "[2001:db8:8000::1]", false},
      {"[2001:db8::]/32", "[2001:db8::5]", true}, {"2001:db8::/129", "[2001:db8::]", false},
  };
  for (const auto& [no_proxy, target, direct] : rows) {
    const zel::ProxySettings settings{"http://p:1", "", no_proxy};
    EXPECT_EQ(!settings.route_for("wss", target), direct) << "'" << no_proxy << "' " << target;
  }
}

}  // namespace
}  // namespace zt
