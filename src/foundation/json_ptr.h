// Ownership helpers for cJSON trees and printed buffers.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>

namespace zel {

struct JsonDeleter {
  void operator()(cJSON* p) const { cJSON_Delete(p); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

// Compact text of a tree; "" when printing fails.
inline std::string print_unformatted(const cJSON* item) {
  char* text = cJSON_PrintUnformatted(item);
  if (text == nullptr) return std::string();
  std::string out(text);
  cJSON_free(text);
  return out;
}

// The string value of a member, or "" when it is absent or not a string.
inline std::string string_member(const cJSON* object, const char* name) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, name);
  return (cJSON_IsString(item) && item->valuestring != nullptr) ? std::string(item->valuestring)
                                                                 : std::string();
}

}  // namespace zel
