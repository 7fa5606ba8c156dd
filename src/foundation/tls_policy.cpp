#include "foundation/tls_policy.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <mutex>

#include "foundation/log.h"
#include "foundation/time_utils.h"

#ifndef ZEL_RELEASE_EPOCH
#define ZEL_RELEASE_EPOCH 0
#endif

namespace zel {

namespace {

constexpr long kClockLinePeriod = 60;

std::mutex g_mutex;
TlsPolicy g_policy;
bool g_clock_said = false;
long g_clock_said_at = 0;

std::string base64(const unsigned char* bytes, size_t n) {
  std::string out(4 * ((n + 2) / 3) + 1, '\0');
  int len = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), bytes, static_cast<int>(n));
  out.resize(len > 0 ? static_cast<size_t>(len) : 0);
  return out;
}

// The canonical base64 of exactly 32 bytes: 43 characters and one "=". Anything else could
// never match, and a ";" would split the list libcurl is given.
bool valid_pin(const std::string& pin) {
  if (pin.size() != 44 || pin[43] != '=') return false;
  for (size_t i = 0; i < 43; ++i) {
    char c = pin[i];
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '/') return false;
  }
  unsigned char bytes[33];
  if (EVP_DecodeBlock(bytes, reinterpret_cast<const unsigned char*>(pin.data()), 44) != 33) return false;
  return base64(bytes, 32) == pin;
}

}  // namespace

bool store_tls_policy(const TlsPolicy& policy) {
  for (const auto* list : {&policy.pinned_sha256, &policy.storage_pinned_sha256}) {
    for (const std::string& pin : *list) {
      if (valid_pin(pin)) continue;
      zel_log(LEVEL_ERR, "TLS policy not changed: pin \"%s\" is not the base64 of a SHA-256\n",
              pin.c_str());
      return false;
    }
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  g_policy = policy;
  return true;
}

TlsPolicy tls_policy() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_policy;
}

std::string spki_pin(X509* cert) {
  unsigned char* der = nullptr;
  int len = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(cert), &der);
  if (len <= 0) return std::string();
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned md_len = 0;
  bool ok = EVP_Digest(der, static_cast<size_t>(len), md, &md_len, EVP_sha256(), nullptr) == 1;
  OPENSSL_free(der);
  return ok ? base64(md, md_len) : std::string();
}

bool chain_has_pin(STACK_OF(X509) * chain, const std::vector<std::string>& pins) {
  for (int i = 0; chain != nullptr && i < sk_X509_num(chain); ++i) {
    std::string pin = spki_pin(sk_X509_value(chain, i));
    if (std::find(pins.begin(), pins.end(), pin) != pins.end()) return true;
  }
  return false;
}

void verify_at_library_clock(SSL_CTX* ctx) {
  X509_VERIFY_PARAM_set_time(SSL_CTX_get0_param(ctx), static_cast<time_t>(time_now()));
}

long release_epoch() { return ZEL_RELEASE_EPOCH; }

bool clock_unset() { return time_now() < release_epoch(); }

void note_verify_failure() {
  const long now = time_now();
  if (now >= release_epoch()) return;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_clock_said && now - g_clock_said_at < kClockLinePeriod && now >= g_clock_said_at) return;
    g_clock_said = true;
    g_clock_said_at = now;
  }
  zel_log(LEVEL_ERR,
          "System clock is not set (it reads %s): certificates cannot be checked until it is\n",
          toISOTime(now).c_str());
}

}  // namespace zel
