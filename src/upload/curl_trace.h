// libcurl's verbose output, line by line into the library's log, with what must stay
// secret taken out: the query of a blob URL is its shared-access signature, and the
// authorisation headers carry credentials.
#pragma once

#include <curl/curl.h>

#include <string>

namespace zel {

// A CURLOPT_DEBUGFUNCTION.
int curl_trace(CURL* handle, curl_infotype type, char* data, size_t size, void* unused);

// One line of that output as it may be shown.
std::string redact_curl_line(std::string line);

}  // namespace zel
