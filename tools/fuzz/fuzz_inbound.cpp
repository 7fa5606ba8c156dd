// Arbitrary bytes as one text received from the messaging server, through the real
// inbound path: the link's inbound queue, then inbound processing under the work mutex,
// with host callbacks that answer. The link counts as connected (no socket behind it),
// so every reply lands in the outbound set, where it is checked and then discarded.
//
// Whatever arrives, the library must not crash, leak or grow, must consume the text,
// and may send only a well-formed reply to the request's sender, plus the version
// announcement a "transaction" for the "user" model asks for.
#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/json_ptr.h"
#include "fuzz_support.h"
#include "link/outbound_type.h"
#include "link/websocket_client.h"
#include "messaging/messaging.h"

namespace {

using zel::JsonPtr;
using zel::print_unformatted;
using zel::string_member;

const char* string_or_null(const cJSON* item) {
  return (cJSON_IsString(item) && item->valuestring != nullptr) ? item->valuestring : nullptr;
}

// Only what a request can make the device send; anything else in the outbound set is
// a finding.
void check_sent(const std::string& text, const std::vector<std::string>& sent) {
  JsonPtr request(cJSON_Parse(text.c_str()));
  const cJSON* subject_item = cJSON_GetObjectItemCaseSensitive(request.get(), "subject");
  const char* subject = string_or_null(subject_item);
  if (!request || subject == nullptr) {
    FUZZ_CHECK(sent.empty(), "%zu message(s) sent for a text that is no request", sent.size());
    return;
  }
  const char* id = string_or_null(cJSON_GetObjectItemCaseSensitive(request.get(), "id"));
  const char* from = string_or_null(cJSON_GetObjectItemCaseSensitive(request.get(), "from"));
  const std::string subject_text = subject;
  const cJSON* content = cJSON_GetObjectItemCaseSensitive(request.get(), "content");
  const bool announces_version =
      subject_text == "transaction" && string_member(content, "model") == "user";

  int replies = 0;
  int announcements = 0;
  for (const std::string& message : sent) {
    JsonPtr doc(cJSON_Parse(message.c_str()));
    FUZZ_CHECK(cJSON_IsObject(doc.get()), "sent text is not a JSON object: %s", message.c_str());
    FUZZ_CHECK(string_member(doc.get(), "from") == zel_fuzz::kDeviceMac, "wrong sender: %s",
               message.c_str());
    const cJSON* original_id = cJSON_GetObjectItemCaseSensitive(doc.get(), "original_id");
    if (original_id == nullptr) {
      // Not a reply: only the version announcement may go out on its own.
      ++announcements;
      FUZZ_CHECK(announces_version, "unexpected message: %s", message.c_str());
      FUZZ_CHECK(string_member(doc.get(), "subject") == "version" &&
                     string_member(doc.get(), "to") == "zel-inbound",
                 "bad announcement: %s", message.c_str());
      FUZZ_CHECK(string_member(cJSON_GetObjectItemCaseSensitive(doc.get(), "content"),
                               "version") == "22.1.0",
                 "announcement without the version document: %s", message.c_str());
      continue;
    }
    ++replies;
    FUZZ_CHECK(id != nullptr && from != nullptr, "reply to a request without id/from: %s",
               message.c_str());
    FUZZ_CHECK(string_or_null(original_id) != nullptr && std::string(original_id->valuestring) == id,
               "reply carries the wrong original_id: %s", message.c_str());
    FUZZ_CHECK(string_member(doc.get(), "to") == from, "reply goes to the wrong peer: %s",
               message.c_str());
    FUZZ_CHECK(string_member(doc.get(), "subject") == subject_text,
               "reply has the wrong subject: %s", message.c_str());
    const cJSON* body = cJSON_GetObjectItemCaseSensitive(doc.get(), "content");
    const std::string status = string_member(body, "status");
    FUZZ_CHECK(status == "OK" || status == "ERROR", "reply status '%s': %s", status.c_str(),
               message.c_str());
    const cJSON* details = cJSON_GetObjectItemCaseSensitive(body, "details");
    FUZZ_CHECK(details != nullptr, "reply without details: %s", message.c_str());
    if (!zel_fuzz::is_known_subject(subject_text))
      FUZZ_CHECK(status == "ERROR", "unknown subject answered OK: %s", message.c_str());
    if (zel_fuzz::host().threw) {
      FUZZ_CHECK(status == "ERROR" && string_member(details, "error") == "Host callback failed",
                 "a throwing host callback was not reported: %s", message.c_str());
    }
  }
  FUZZ_CHECK(replies <= 1, "%d replies to one request", replies);
  FUZZ_CHECK(announcements <= 1, "%d version announcements", announcements);
  if (announces_version) FUZZ_CHECK(announcements == 1, "the version announcement is missing");

  // Every known request except "pong" is answered when there is someone to answer: the
  // library's own bodies and the callbacks' answers here are all JSON.
  const bool answerable = id != nullptr && from != nullptr && from[0] != '\0';
  if (answerable && zel_fuzz::is_known_subject(subject_text) && subject_text != "pong")
    FUZZ_CHECK(replies == 1, "no reply to '%s'", subject);
  if (subject_text == "pong") FUZZ_CHECK(replies == 0, "\"pong\" was answered");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  zel_fuzz::scratch_dir();
  // No socket: only the flag that lets replies into the outbound set.
  zel::WebSocketClient::instance().set_connected(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  zel::Messaging& m = zel_fuzz::start_clean_input();
  zel::WebSocketClient& link = zel::WebSocketClient::instance();
  FUZZ_CHECK(link.outbound_size() == 0, "outbound set not empty before the input");

  link.inject_inbound(text);
  {
    std::lock_guard<std::recursive_timed_mutex> lock(m.get_work_mutex());
    m.process_inbound();
  }
  FUZZ_CHECK(!link.inbound_message_ready(), "the inbound text was not consumed");

  const std::vector<std::string> sent = link.outbound_texts();
  for (const std::string& message : sent) {
    zel::OutboundType item{message, 0};
    link.outbound_remove_message(item);
  }
  check_sent(text, sent);
  return 0;
}
