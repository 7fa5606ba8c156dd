// What the host asked of the servers' certificates (Upload::set_tls_policy), and the checks
// the link and the uploads share: public-key pins, the library's clock as the time of
// verification, and the plain words for a clock that was never set.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <string>

#include "zel/records.h"

namespace zel {

// Takes the policy for the next connect: false (and nothing changes, with a log line) when a
// pin is not the base64 of 32 bytes. Any thread.
bool store_tls_policy(const TlsPolicy& policy);
TlsPolicy tls_policy();

// The pin of a certificate: base64 of the SHA-256 of its SubjectPublicKeyInfo.
std::string spki_pin(X509* cert);
// True when a certificate of chain carries one of pins.
bool chain_has_pin(STACK_OF(X509) * chain, const std::vector<std::string>& pins);

// Certificates are judged at the library's clock, not the system's, so that a test can
// stand the clock in 1970. Applied to every new client context.
void verify_at_library_clock(SSL_CTX* ctx);

// When this build was made (SOURCE_DATE_EPOCH, else the last commit): no correct clock
// reads earlier.
long release_epoch();
bool clock_unset();
// After a failed verification: while the clock is unset, says so, at most once a minute.
void note_verify_failure();

}  // namespace zel
