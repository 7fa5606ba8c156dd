#include "link/link_tls.h"

#include <arpa/inet.h>
#include <openssl/x509v3.h>

#include "foundation/log.h"
#include "foundation/tls_policy.h"

namespace zel {

namespace {

bool is_ip_address(const std::string& host) {
  unsigned char addr[16];
  return inet_pton(AF_INET, host.c_str(), addr) == 1 || inet_pton(AF_INET6, host.c_str(), addr) == 1;
}

}  // namespace

void LinkTls::prepare(const std::string& h) {
  policy = tls_policy();
  host = h;
  // The URI form of an IPv6 address carries brackets; the certificate's does not.
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
}

void LinkTls::on_client_context(SSL_CTX* ctx) {
  if (ctx != nullptr) verify_at_library_clock(ctx);
}

bool LinkTls::matches_host(X509* leaf) const {
  // By the subjectAltName rules: an IP address only against IP entries, a name against DNS
  // entries (wildcards in the leftmost label), the subject's CN only when there are none.
  if (is_ip_address(host)) return X509_check_ip_asc(leaf, host.c_str(), 0) == 1;
  return X509_check_host(leaf, host.data(), host.size(), 0, nullptr) == 1;
}

int LinkTls::verify(X509_STORE_CTX* store, int preverify_ok) {
  if (!preverify_ok) {
    note_verify_failure();
    return 0;
  }
  // Depth 0 comes last, once every certificate above it has been verified: only then is
  // the chain one to judge.
  if (X509_STORE_CTX_get_error_depth(store) != 0) return 0;
  X509* leaf = X509_STORE_CTX_get_current_cert(store);
  if (policy.verify_host_name && (leaf == nullptr || !matches_host(leaf))) {
    zel_log(LEVEL_ERR, "Server certificate does not match host %s\n", host.c_str());
    X509_STORE_CTX_set_error(store, X509_V_ERR_HOSTNAME_MISMATCH);
    return 1;
  }
  if (!policy.pinned_sha256.empty() &&
      !chain_has_pin(X509_STORE_CTX_get0_chain(store), policy.pinned_sha256)) {
    zel_log(LEVEL_ERR, "No certificate in the server's chain matches a pinned key\n");
    X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
    return 1;
  }
  return 0;
}

}  // namespace zel
