#include "foundation/redact.h"

#include <cctype>
#include <cstring>

namespace zel {

namespace {

constexpr size_t kMaxSubject = 64;
constexpr const char* kMask = "***";

// The index just past the closing quote of the JSON string starting at open (a quote),
// or npos for a string cut short.
size_t string_end(const std::string& text, size_t open) {
  for (size_t i = open + 1; i < text.size(); ++i) {
    if (text[i] == '\\') ++i;
    else if (text[i] == '"') return i + 1;
  }
  return std::string::npos;
}

// The index of the value after `"name"` and its colon, or npos.
size_t value_after(const std::string& text, size_t name_end) {
  size_t i = name_end;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i >= text.size() || text[i] != ':') return std::string::npos;
  ++i;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  return i;
}

void mask_member(std::string& text, const char* name) {
  const std::string quoted = std::string("\"") + name + "\"";
  for (size_t at = text.find(quoted); at != std::string::npos; at = text.find(quoted, at + 1)) {
    size_t value = value_after(text, at + quoted.size());
    if (value == std::string::npos || value >= text.size() || text[value] != '"') continue;
    size_t end = string_end(text, value);
    // A value cut short is masked to the end: its tail may be the secret itself.
    if (end == std::string::npos) end = text.size() + 1;
    text.replace(value + 1, end - 1 - (value + 1), kMask);
  }
}

void mask_signatures(std::string& text) {
  for (size_t at = text.find("sig="); at != std::string::npos; at = text.find("sig=", at + 1)) {
    size_t start = at + 4;
    size_t end = start;
    while (end < text.size() && std::strchr("&\"' \t\r\n\\", text[end]) == nullptr) ++end;
    text.replace(start, end - start, kMask);
  }
}

}  // namespace

std::string describe_inbound(const std::string& text) {
  std::string out = "<" + std::to_string(text.size()) + " bytes";
  size_t at = text.find("\"subject\"");
  size_t value = at == std::string::npos ? at : value_after(text, at + 9);
  if (value != std::string::npos && value < text.size() && text[value] == '"') {
    size_t end = value + 1;
    while (end < text.size() && end - value <= kMaxSubject &&
           (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_'))
      ++end;
    if (end < text.size() && text[end] == '"' && end > value + 1)
      out += ", subject " + text.substr(value + 1, end - value - 1);
  }
  return out + ">";
}

std::string mask_secrets(std::string text) {
  for (const char* name : {"token", "secret", "key", "cert", "password"}) mask_member(text, name);
  mask_signatures(text);
  return text;
}

}  // namespace zel
