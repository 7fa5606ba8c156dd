// The envelope and the JSON file helper with the fuzzers' findings.
#include <gtest/gtest.h>

#include "foundation/envelope.h"
#include "support/peer.h"
#include "zel/json.h"
#include "zel/msg_response.h"

namespace zt {
namespace {

TEST(Envelope, MessagesAndReplies) {
  const zel::DeviceInfo dev{kMacLower, "p1", ""}, controller{kMacLower, "", "controller"};
  const std::pair<std::string, std::string> rows[] = {
      {zel::makeMessage(dev, "zel-inbound", "version", "{\"a\":[1]}", true),
       envelope("zel-inbound", "version", "{\"a\":[1]}")},
      {zel::makeMessage(controller, "jobs", "ping", "\"ping\"", true),
       with_device_type(envelope("jobs", "ping", "\"ping\""), "controller")},
      {zel::composeReply(dev, "req-7", "zel-cloud", "details", "OK", "{\"k\":[1,2]}"),
       envelope("zel-cloud", "details", "{\"status\":\"OK\",\"details\":{\"k\":[1,2]}}", "req-7")},
  };
  for (const auto& [got, want] : rows) EXPECT_EQ(stable(got), want);
}

TEST(JsonFiles, SetBoolOnlyChangesObjects) {
  TempDir dir;
  struct Row {
    const char *before, *key;
    bool value, ok;
    const char* after;
  } rows[] = {
      {"{\"a\":\"x\",\"b\":1}", "a", true, true, "{\"a\":true,\"b\":1}"},
      // Found by the fuzzers: an array took the boolean as an element, a number lost it.
      {"[1,2]", "a", false, false, "[1,2]"},
      {"5", "on", true, false, "5"},
  };
  testing::internal::CaptureStdout();  // the warning about text that is not JSON
  for (const Row& row : rows) {
    SCOPED_TRACE(row.before);
    std::string path = dir.file("s.json", row.before);
    EXPECT_EQ(zel::JSONSetBool(path, row.key, row.value), row.ok);
    EXPECT_EQ(read_file(path), row.after);
  }
  testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace zt
