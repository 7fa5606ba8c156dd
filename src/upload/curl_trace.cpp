#include "upload/curl_trace.h"

#include <strings.h>

#include "foundation/log.h"

namespace zel {

std::string redact_curl_line(std::string line) {
  for (const char* name : {"> Authorization:", "> Proxy-Authorization:"}) {
    const size_t n = std::char_traits<char>::length(name);
    if (line.size() >= n && strncasecmp(line.c_str(), name, n) == 0) {
      return line.substr(0, n) + " [hidden]";
    }
  }
  // Every query, wherever it shows: in a request line, or in a URL curl mentions.
  for (size_t q = line.find('?'); q != std::string::npos; q = line.find('?', q + 1)) {
    size_t end = line.find_first_of(" '\"", q);
    line.replace(q + 1, (end == std::string::npos ? line.size() : end) - q - 1, "[hidden]");
  }
  return line;
}

int curl_trace(CURL*, curl_infotype type, char* data, size_t size, void*) {
  const char* prefix = nullptr;
  switch (type) {
    case CURLINFO_TEXT:
      prefix = "* ";
      break;
    case CURLINFO_HEADER_OUT:
      prefix = "> ";
      break;
    case CURLINFO_HEADER_IN:
      prefix = "< ";
      break;
    default:
      return 0;  // bodies and TLS records: the clip, encrypted, has no place in a log
  }
  std::string text(data, size);
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) log_foreign_line(redact_curl_line(prefix + line));
    start = end + 1;
  }
  return 0;
}

}  // namespace zel
