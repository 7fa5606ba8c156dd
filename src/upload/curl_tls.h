// The uploads' side of the TLS policy: the storage pins and the library's clock, applied to
// a libcurl handle. The blob host's name is checked by libcurl itself, as it always was.
#pragma once

#include <curl/curl.h>

namespace zel {

// Sets on a new handle what the policy of the last set_tls_policy asks for.
void apply_tls_policy(CURL* handle);

}  // namespace zel
