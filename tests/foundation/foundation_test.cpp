// The envelope every message wears, the clock texts and the work limiter, and the JSON
// file helpers a host may call (with the inputs the fuzzers found breaking them).
#include <gtest/gtest.h>

#include "foundation/envelope.h"
#include "foundation/time_utils.h"
#include "support/cloud.h"
#include "zel/json.h"
#include "zel/msg_response.h"

namespace zt {
namespace {

TEST(Envelope, MessagesAndReplies) {
  const zel::DeviceInfo dev{kMacLower, "p1", ""}, controller{kMacLower, "", "controller"};
  struct Row {
    const char* name;
    std::string got, want;
  } rows[] = {
      {"object content", zel::makeMessage(dev, "zel-inbound", "version", "{\"a\":[1]}", true),
       envelope("zel-inbound", "version", "{\"a\":[1]}")},
      {"text content", zel::makeMessage(dev, "jobs", "s", "a \"b\"", false),
       envelope("jobs", "s", "\"a \\\"b\\\"\"")},
      {"controller", zel::makeMessage(controller, "jobs", "ping", "\"ping\"", true),
       with_device_type(envelope("jobs", "ping", "\"ping\""), "controller")},
      {"reply", zel::composeReply(dev, "req-7", "zel-cloud", "details", "OK", "{\"k\":[1,2]}"),
       envelope("zel-cloud", "details", "{\"status\":\"OK\",\"details\":{\"k\":[1,2]}}", "req-7")},
      {"not implemented", zel::composeReply(dev, "1", "c", "a", "ERROR", zel::MsgResponse::NotImpl().content),
       envelope("c", "a", "{\"status\":\"ERROR\",\"details\":{\"error\":\"Not implemented\"}}", "1")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(stable(row.got), row.want);
  }
  // Details that are not JSON, or no addressee, give no reply at all.
  testing::internal::CaptureStdout();
  EXPECT_EQ(zel::composeReply(dev, "1", "c", "s", "OK", "plain"), "");
  EXPECT_EQ(zel::composeReply(dev, "1", "", "s", "OK", "1"), "");
  EXPECT_EQ(zel::composeReply(dev, "1", "c", "", "OK", "1"), "");
  testing::internal::GetCapturedStdout();
}

TEST(Clock, IsoTextsAndTheLimiterBoundary) {
  for (auto [t, text] : {std::pair<long, const char*>{0, "1970-01-01T00:00:00Z"},
                         {951782400, "2000-02-29T00:00:00Z"},
                         {1704067199, "2023-12-31T23:59:59Z"}}) {
    EXPECT_EQ(zel::toISOTime(t), text);
  }
  zel::freeze_clock(true);
  unsigned stamp = static_cast<unsigned>(zel::time_now());
  zel::advance_clock(4);
  EXPECT_EQ(zel::ratelimit(&stamp, 5), 0) << "4 s of a 5 s period";
  zel::advance_clock(1);
  EXPECT_EQ(zel::ratelimit(&stamp, 5), 1) << "the whole period";
  EXPECT_EQ(stamp, static_cast<unsigned>(zel::time_now()));
  EXPECT_EQ(zel::ratelimit(&stamp, 5), 0);
  zel::advance_clock(-5);
  zel::freeze_clock(false);
}

TEST(JsonFiles, SetBoolOnlyChangesObjects) {
  TempDir dir;
  struct Row {
    const char* before;
    const char* key;
    bool value, ok;
    const char* after;
  } rows[] = {
      {"{\"a\":\"x\",\"b\":1}", "a", true, true, "{\"a\":true,\"b\":1}"},
      {"{\"a\":\"x\",\"b\":1}", "c", false, true, "{\"a\":\"x\",\"b\":1,\"c\":false}"},
      {"{\"a\":{\"deep\":[1]},\"b\":true}", "a", false, true, "{\"a\":false,\"b\":true}"},
      {"not json", "a", true, false, "not json"},
      // Found by the fuzzers: an array took the boolean as an element, a number lost it.
      {"[1,2]", "a", false, false, "[1,2]"},
      {"5", "on", true, false, "5"},
  };
  testing::internal::CaptureStdout();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.before);
    std::string path = dir.file("s.json", row.before);
    EXPECT_EQ(zel::JSONSetBool(path, row.key, row.value), row.ok);
    EXPECT_EQ(read_file(path), row.after);
  }
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(zel::readFile(dir.path + "/missing"), "");
  EXPECT_EXIT(zel::readFileStrict(dir.file("empty", "")), testing::ExitedWithCode(1), "");
  EXPECT_EQ(static_cast<cJSON*>(zel::CppJSON("{")), nullptr);
}

}  // namespace
}  // namespace zt
