#include "upload/curl_tls.h"

#include <openssl/ssl.h>

#include <string>

#include "foundation/tls_policy.h"

namespace zel {

namespace {

// Keeps OpenSSL's verdict; only says why a 1970 clock makes every upload fail.
int note_failure(int preverify_ok, X509_STORE_CTX*) {
  if (!preverify_ok) note_verify_failure();
  return preverify_ok;
}

// libcurl calls this for each new TLS context, after it has loaded ca_path and asked for
// peer verification; no exception may leave it.
CURLcode on_ssl_context(CURL*, void* ssl_ctx, void*) {
  auto* ctx = static_cast<SSL_CTX*>(ssl_ctx);
  verify_at_library_clock(ctx);
  SSL_CTX_set_verify(ctx, SSL_CTX_get_verify_mode(ctx), &note_failure);
  return CURLE_OK;
}

}  // namespace

void apply_tls_policy(CURL* handle) {
  curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, &on_ssl_context);
  TlsPolicy policy = tls_policy();
  if (policy.storage_pinned_sha256.empty()) return;
  std::string pins;
  for (const std::string& pin : policy.storage_pinned_sha256)
    pins += (pins.empty() ? "sha256//" : ";sha256//") + pin;
  // libcurl checks the leaf's key after the chain and the host; it copies the text.
  curl_easy_setopt(handle, CURLOPT_PINNEDPUBLICKEY, pins.c_str());
}

}  // namespace zel
