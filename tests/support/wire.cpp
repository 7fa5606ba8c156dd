#include "support/wire.h"

#include <cjson/cJSON.h>

#include <regex>
#include <thread>

#include "support/device_session.h"

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

const std::string kVersionPlain =
    "{\"version\":\"22.1.0\",\"buildNumber\":1,\"buildDate\":\"202007080000\","
    "\"architecture\":\"pelmo_linux64\",\"ui\":\"none\"}";

std::string envelope(const std::string& to, const std::string& subject, const std::string& content) {
  return std::string("{\"id\":\"") + kDeviceMacLower + "<us>\",\"from\":\"" + kDeviceMacLower +
         "\",\"to\":\"" + to + "\",\"subject\":\"" + subject +
         "\",\"date\":\"<date>\",\"signature\":\"n/a\",\"content\":" + content + "}";
}

std::string camera_announcement(const std::string& camera) {
  return envelope(
      "jobs", "transaction",
      std::string("{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":\"transaction\",\"nvrMac\":\"") +
          kDeviceMacLower +
          "\",\"model\":\"camera\",\"properties\":{\"created_at\":\"2018-03-01T12:00:00.000Z\","
          "\"deleted_at\":null,\"ip_address\":\"0.0.0.0\",\"is_fragmented_mp4\":false,\"is_hls\":false,"
          "\"is_live_h264\":false,\"is_ptz\":false,\"is_zoom\":false,\"mac_address\":\"" +
          camera +
          "\",\"model\":\"Lumatrix-Camera\",\"name\":\"ZelCloudLibCamera\",\"password\":\"24680\","
          "\"transcode_audio\":true,\"transcode_video\":false,\"updated_at\":\"2018-03-01T12:00:00.000Z\","
          "\"username\":\"admin\"},\"subject\":\"transaction\"}");
}

bool eventually(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return pred();
}

}  // namespace zel_test
