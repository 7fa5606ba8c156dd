// The dispatcher straight: a subject (one the server uses, or any text) and arbitrary
// contents into ZelHandler::handleMessage on the singleton, under the work mutex, as
// inbound processing calls it. Each subject's answer and its effect on the device's
// state (credentials, clip tables, files, host callbacks) are checked.
//
// Input layout (FuzzedDataProvider): the last byte chooses a known subject (odd) or a
// subject read from the front (even); for a known subject the byte before it is its
// index; the rest is the contents.
#include <cjson/cJSON.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>

#include "foundation/json_ptr.h"
#include "fuzz_support.h"
#include "handlers/zel_handler.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"
#include "zel/json.h"

namespace {

using zel::JsonPtr;
using zel::MsgResponse;
using zel::string_member;
using zel_fuzz::host;

const std::string kOkay = "\"OK\"";

void write_text(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

mode_t permissions(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

void expect_parse_failure(const MsgResponse& r, const char* subject) {
  FUZZ_CHECK(!r.ok && r.content == zel::kCouldNotParseContents,
             "'%s' with contents that are not JSON answered %d '%s'", subject, r.ok,
             r.content.c_str());
}

void expect_okay(const MsgResponse& r, const char* subject) {
  FUZZ_CHECK(r.ok && r.content == kOkay, "'%s' answered %d '%s'", subject, r.ok,
             r.content.c_str());
}

// A callback's answer as the callbacks in fuzz_support.h give it.
void expect_host_answer(const MsgResponse& r, bool failed, const char* error_body,
                        const char* ok_body) {
  if (failed)
    FUZZ_CHECK(!r.ok && r.content == error_body, "host error lost: %d '%s'", r.ok,
               r.content.c_str());
  else
    FUZZ_CHECK(r.ok && r.content == ok_body, "host answer lost: %d '%s'", r.ok, r.content.c_str());
}

void check_certificate_file(const cJSON* inner, const char* member, const std::string& path,
                            const std::string& before, mode_t mode) {
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(inner, member);
  const std::string now = zel::readFile(path);
  if (item == nullptr) {
    FUZZ_CHECK(now == before, "%s rewritten although the request has no \"%s\"", path.c_str(),
               member);
    return;
  }
  const std::string expected =
      (cJSON_IsString(item) && item->valuestring != nullptr) ? item->valuestring : "";
  FUZZ_CHECK(now == expected, "%s holds %zu bytes, expected %zu", path.c_str(), now.size(),
             expected.size());
  FUZZ_CHECK(permissions(path) == mode, "%s has mode %o, expected %o", path.c_str(),
             permissions(path), mode);
}

void check(zel::Messaging& m, const std::string& subject, const std::string& contents,
           const MsgResponse& r) {
  JsonPtr root(cJSON_Parse(contents.c_str()));
  const char* s = subject.c_str();
  const zel_fuzz::HostLog& h = host();
  const bool host_subject = zel_fuzz::is_host_subject(subject);
  if (!host_subject) {
    FUZZ_CHECK(h.list_actions + h.perform_action + h.ota_update == 0,
               "'%s' reached an action or update callback", s);
  }
  if (subject != "version") FUZZ_CHECK(h.cloud_status == 0, "'%s' reported a cloud status", s);
  // Whatever the library answers by itself must be JSON: the reply is built around it.
  if (zel_fuzz::is_known_subject(subject) && !r.content.empty()) {
    JsonPtr answer(cJSON_Parse(r.content.c_str()));
    FUZZ_CHECK(answer != nullptr, "'%s' answered with text that is not JSON: %s", s,
               r.content.c_str());
  }

  if (subject == "pong") {
    FUZZ_CHECK(r.ok && r.content.empty(), "\"pong\" answered '%s'", r.content.c_str());
    FUZZ_CHECK(m.get_missed_pongs() == 0, "\"pong\" left %d missed pongs", m.get_missed_pongs());
  } else if (subject == "getStorageAccess") {
    if (!root) return expect_parse_failure(r, s);
    expect_okay(r, s);
    const std::string key = string_member(root.get(), "camera_mac") +
                            string_member(root.get(), "start_at");
    auto& credentials = m.get_credentials();
    FUZZ_CHECK(credentials.size() == 1, "%zu credentials stored", credentials.size());
    auto it = credentials.find(key);
    FUZZ_CHECK(it != credentials.end(), "credentials not stored under '%s'", key.c_str());
    FUZZ_CHECK(it->second.token == string_member(root.get(), "token") &&
                   it->second.account == string_member(root.get(), "account") &&
                   it->second.secret == string_member(root.get(), "secret"),
               "credentials stored wrong");
    const auto& pending = m.get_pending_clips();
    FUZZ_CHECK(pending.size() == 1, "the waiting clip left its table");
    const bool for_waiting_clip = key == zel_fuzz::pending_clip_key();
    FUZZ_CHECK(pending.begin()->second.in_flight == for_waiting_clip,
               "the waiting clip was %sreleased", for_waiting_clip ? "not " : "");
    if (for_waiting_clip)
      FUZZ_CHECK(h.clip_states.size() == 1 && h.clip_states[0] == zel::CLIP_UPLOAD_STARTED,
                 "upload start not reported");
    else
      FUZZ_CHECK(h.clip_states.empty(), "clip state reported for credentials of another clip");
  } else if (subject == "transaction" || subject == "setSshPassword" ||
             subject == "cameraSettingWrite") {
    expect_okay(r, s);
  } else if (subject == "transactionAck") {
    expect_okay(r, s);
    const bool acks_clip = root && string_member(root.get(), "from") +
                                           string_member(root.get(), "start_at") ==
                                       zel_fuzz::unacked_clip_key();
    const size_t left = m.get_unacked_clips().size();
    if (acks_clip)
      FUZZ_CHECK(left == 0 && h.clip_states.size() == 1 && h.clip_states[0] == zel::CLIP_CONFIRMED,
                 "acknowledged clip not confirmed (%zu left)", left);
    else
      FUZZ_CHECK(left == 1 && h.clip_states.empty(), "an unrelated acknowledgement changed the table");
  } else if (subject == "version") {
    FUZZ_CHECK(r.ok && r.content == m.get_version_json(), "\"version\" answered '%s'",
               r.content.c_str());
    FUZZ_CHECK(h.cloud_status == 1, "cloud status reported %d times", h.cloud_status);
    FUZZ_CHECK(m.get_account_id() == h.status.account_id, "account id not kept");
    FUZZ_CHECK(h.status.device_uuid == string_member(root.get(), "device_uuid"),
               "device uuid lost");
  } else if (subject == "details" || subject == "status") {
    JsonPtr body(cJSON_Parse(r.content.c_str()));
    FUZZ_CHECK(r.ok && string_member(body.get(), "mac") == zel_fuzz::kDeviceMac &&
                   cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(body.get(), "version")),
               "'%s' answered '%s'", s, r.content.c_str());
  } else if (subject == "issueCertificate") {
    const cJSON* inner = cJSON_GetObjectItemCaseSensitive(root.get(), "contents");
    if (inner == nullptr) {
      expect_parse_failure(r, s);
      FUZZ_CHECK(zel::readFile(zel_fuzz::cert_path()) == "old cert" &&
                     zel::readFile(zel_fuzz::key_path()) == "old key",
                 "files changed by a refused certificate");
      return;
    }
    // Both given: replaced only as a pair whose key matches the certificate, which no
    // fuzzed bytes make.
    if (cJSON_GetObjectItemCaseSensitive(inner, "cert") && cJSON_GetObjectItemCaseSensitive(inner, "key")) {
      FUZZ_CHECK(!r.ok && r.content == "{\"error\": \"Could not write certificate\"}" &&
                     zel::readFile(zel_fuzz::cert_path()) == "old cert" &&
                     zel::readFile(zel_fuzz::key_path()) == "old key",
                 "a pair that does not match answered '%s' or changed the files", r.content.c_str());
      return;
    }
    expect_okay(r, s);
    check_certificate_file(inner, "cert", zel_fuzz::cert_path(), "old cert", 0644);
    check_certificate_file(inner, "key", zel_fuzz::key_path(), "old key", 0600);
  } else if (subject == "actions") {
    if (!root) return expect_parse_failure(r, s);
    const std::string device =
        string_member(cJSON_GetObjectItemCaseSensitive(root.get(), "options"), "device");
    FUZZ_CHECK(h.list_actions == 1 && h.device == device, "actions callback got '%s'",
               h.device.c_str());
    expect_host_answer(r, device == "error", "{\"error\":\"no such device\"}",
                       "{\"actions\":[\"open\",\"close\"]}");
  } else if (subject == "action") {
    if (!root) return expect_parse_failure(r, s);
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(root.get(), "value");
    FUZZ_CHECK(h.perform_action == 1 && h.action.action == string_member(root.get(), "action") &&
                   h.action.device == string_member(root.get(), "device") &&
                   h.action.value == (value ? zel::print_unformatted(value) : ""),
               "action callback got '%s' '%s' '%s'", h.action.device.c_str(),
               h.action.action.c_str(), h.action.value.c_str());
    expect_host_answer(r, h.action.action == "error", "{\"error\":\"refused\"}", "{\"ok\":1}");
  } else if (subject == "update" || subject == "updateFirmware") {
    if (!root) return expect_parse_failure(r, s);
    FUZZ_CHECK(h.ota_update == 1 && h.update.url == string_member(root.get(), "url") &&
                   h.update.hash == string_member(root.get(), "hash") &&
                   h.update.device == string_member(root.get(), "device") &&
                   h.update.reserved.empty(),
               "update callback got '%s' '%s' '%s'", h.update.url.c_str(), h.update.hash.c_str(),
               h.update.device.c_str());
    expect_host_answer(r, h.update.url == "error", "{\"error\":\"bad image\"}", "{\"ok\":1}");
  } else {
    // Unknown subjects go back inside the error as they came.
    FUZZ_CHECK(!r.ok && r.content == "{\"from\":\"zel-upload-lib\",\"error\":\"Not supported subject: " +
                                          subject + "\"}",
               "unknown subject answered %d '%s'", r.ok, r.content.c_str());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  zel_fuzz::scratch_dir();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider fdp(data, size);
  std::string subject;
  if (fdp.ConsumeBool())
    subject = zel_fuzz::kKnownSubjects[fdp.ConsumeIntegralInRange<size_t>(
        0, zel_fuzz::kKnownSubjectCount - 1)];
  else
    subject = fdp.ConsumeRandomLengthString(64);
  const std::string contents = fdp.ConsumeRemainingBytesAsString();

  zel::Messaging& m = zel_fuzz::start_clean_input();
  std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
  m.ping();  // no link, so nothing is sent; "pong" has one missed pong to clear
  if (subject == "issueCertificate") {
    write_text(zel_fuzz::cert_path(), "old cert");
    write_text(zel_fuzz::key_path(), "old key");
  }

  MsgResponse r;
  try {
    r = zel::ZelHandler::handleMessage(&m, subject, contents, nullptr);
  } catch (...) {
    // Only a host callback that threw on purpose may get here; inbound processing
    // catches it (fuzz_inbound checks the reply).
    FUZZ_CHECK(host().threw, "'%s' threw without a throwing host callback", subject.c_str());
    return 0;
  }
  FUZZ_CHECK(!host().threw, "a host callback threw but '%s' returned", subject.c_str());
  check(m, subject, contents, r);
  // Without a connection nothing may pile up for later.
  FUZZ_CHECK(zel::WebSocketClient::instance().outbound_size() == 0, "outbound set grew");
  return 0;
}
