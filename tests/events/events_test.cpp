// Motion and access events of an access controller, and the server's transactions.
#include <gtest/gtest.h>

#include "support/peer.h"

namespace zt {
namespace {

class Events : public ::testing::Test {
 protected:
  std::string transaction(size_t nth) { return stable(cloud.sent("transaction", nth).value_or("")); }
  static std::string expected(const std::string& body) {
    return with_device_type(envelope("jobs", "transaction", "{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":"
                                     "\"transaction\",\"subject\":\"transaction\"," + body), "controller");
  }
  // Account 0 until the test's own version request says otherwise.
  Cloud cloud{true, "{\"version_reply\":{\"registered\":true,\"account_id\":0}}"};
  zel::CloudConnect cc = [this] { auto cc = cloud.params(); return cc.device_type = 1, cc; }();
};

TEST_F(Events, MotionEventsByTypeThenAccessEventsCarryTheAccountOnceKnown) {
  Device device(cloud, cc);
  zel::Upload::upload_event(zel::EventInfo{1, "cam-1", 1700000000, 1700000010, "t1.jpg"});
  zel::Upload::upload_event(zel::EventInfo{2, "cam-2", 0, 1, ""});
  auto body = [](const char* start, const char* type, const char* end, const char* cam, const char* thumb) {
    return std::string("\"nvrMac\":\"") + kMacLower + "\",\"model\":\"event\",\"properties\":{\"start_at\":\"" +
           start + "\",\"event_type\":\"" + type + "\",\"end_at\":\"" + end + "\",\"meta\":null,\"camera_mac\":\"" +
           cam + "\",\"user_email\":null,\"thumbnail\":\"" + thumb + "\"}}";
  };
  EXPECT_EQ(transaction(0), expected(body("2023-11-14T22:13:20Z", "MOTION", "2023-11-14T22:13:30Z", "cam-1", "t1.jpg")));
  EXPECT_EQ(transaction(1), expected(body("1970-01-01T00:00:00Z", "HYPERVIEW", "1970-01-01T00:00:01Z", "cam-2", "")));
  zel::Upload::upload_event(zel::AccessEventInfo{"granted", 0, 1, "", "c", "", ""});  // no device: ignored
  zel::Upload::upload_event(zel::AccessEventInfo{"granted", 0, 1, "door-1", "", "", ""});
  const std::string times = "\"start_at\":\"1970-01-01T00:00:00Z\",\"end_at\":\"1970-01-01T00:00:01Z\"";
  EXPECT_EQ(transaction(2), expected("\"device_uuid\":\"door-1\",\"model\":\"accessEvent\",\"properties\":{"
                                     "\"event_type\":\"granted\"," + times + "}}"));
  cloud.request("version", "{\"account_id\":42}", "v-1");
  ASSERT_TRUE(cloud.reply("v-1"));
  zel::Upload::upload_event(zel::AccessEventInfo{"denied", 0, 1, "door-2", "cred-9", "{\"pin\":false}", "t"});
  EXPECT_EQ(transaction(3), expected("\"account_id\":\"42\",\"device_uuid\":\"door-2\",\"credential_uuid\":\"cred-9\","
                                     "\"model\":\"accessEvent\",\"properties\":{\"event_type\":\"denied\"," + times +
                                     ",\"meta\":{\"pin\":false},\"tag\":\"t\"}}"));
  EXPECT_FALSE(cloud.sent("transaction", 4, 300ms));
  // A "user" transaction from the server makes the device announce its version again.
  cloud.request("transaction", "{\"model\":\"user\"}", "t-1");
  EXPECT_EQ(stable(cloud.reply("t-1").value_or("")),
            with_device_type(envelope("zel-cloud", "transaction", kOkay, "t-1"), "controller"));
  EXPECT_TRUE(cloud.sent("version", 1));
}

}  // namespace
}  // namespace zt
