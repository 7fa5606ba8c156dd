#include "support/wire.h"

#include <cjson/cJSON.h>

#include <regex>

namespace zel_test {

std::string stable(const std::string& text) {
  static const std::regex id("\"id\":\"([^\"]*?)[0-9]{16}\"");
  static const std::regex date("\"date\":\"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z\"");
  std::string s = std::regex_replace(text, id, "\"id\":\"$1<us>\"");
  return std::regex_replace(s, date, "\"date\":\"<date>\"");
}

std::string json_string(const std::string& text, const char* member) {
  cJSON* root = cJSON_Parse(text.c_str());
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(root, member);
  std::string value = cJSON_IsString(item) ? item->valuestring : "";
  cJSON_Delete(root);
  return value;
}

std::string json_member(const std::string& text, const char* member) {
  cJSON* root = cJSON_Parse(text.c_str());
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(root, member);
  std::string value;
  if (item != nullptr) {
    char* printed = cJSON_PrintUnformatted(item);
    value = printed;
    cJSON_free(printed);
  }
  cJSON_Delete(root);
  return value;
}

}  // namespace zel_test
