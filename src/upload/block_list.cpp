#include "upload/block_list.h"

#include <cstdio>

namespace zel {

namespace {
const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Six bytes in, eight characters out: never any padding.
std::string base64_of_six(const char* in) {
  std::string out;
  for (int i = 0; i < 6; i += 3) {
    const unsigned v = (static_cast<unsigned char>(in[i]) << 16) |
                       (static_cast<unsigned char>(in[i + 1]) << 8) |
                       static_cast<unsigned char>(in[i + 2]);
    for (int shift = 18; shift >= 0; shift -= 6) out += kAlphabet[(v >> shift) & 63];
  }
  return out;
}
}  // namespace

std::string block_id(uint64_t n) {
  char digits[8];
  std::snprintf(digits, sizeof digits, "%06llu", static_cast<unsigned long long>(n % 1000000));
  return base64_of_six(digits);
}

std::string block_list_body(uint64_t count) {
  std::string body = "<?xml version=\"1.0\" encoding=\"utf-8\"?><BlockList>";
  for (uint64_t n = 0; n < count; ++n) body += "<Latest>" + block_id(n) + "</Latest>";
  return body + "</BlockList>";
}

}  // namespace zel
