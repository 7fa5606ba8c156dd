// The link's checks beyond the chain that libwebsockets verifies against ca_path: the host
// name and the pinned keys the host asked for, and the library's clock as the time of
// verification. Its steps are called from the lws callback, so from the worker thread only.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <string>

#include "zel/records.h"

namespace zel {

class LinkTls {
 public:
  // Takes the policy for the coming connection to host (a name or an IP address).
  void prepare(const std::string& host);
  // LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS: a new client context.
  void on_client_context(SSL_CTX* ctx);
  // LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION, with lws' convention: 0 lets
  // OpenSSL's verdict stand, 1 refuses the certificate.
  int verify(X509_STORE_CTX* store, int preverify_ok);

 private:
  bool matches_host(X509* leaf) const;

  TlsPolicy policy;
  std::string host;
};

}  // namespace zel
