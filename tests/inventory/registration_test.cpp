// What the host's inventory and settings reports put on the wire: item registration,
// camera announcements, the cloud sync request, camera settings and action schedules.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/cloud_server.h"
#include "support/device_session.h"
#include "support/log_capture.h"
#include "support/wire.h"
#include "zel/items.h"
#include "zel/upload.h"

namespace zel_test {
namespace {

using namespace std::chrono_literals;

std::string transaction(const std::string& model, const std::string& properties) {
  return envelope("jobs", "transaction",
                  std::string("{\"topic\":\"transaction\",\"nvrMac\":\"") + kDeviceMacLower +
                      "\",\"model\":\"" + model +
                      "\",\"method\":\"changed\",\"apiVersion\":\"2\",\"properties\":" + properties +
                      "}");
}

TEST(Registration, ItemsCamerasAndCloudSync) {
  CloudServer server;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));

  zel::Relay relay;
  relay.relay_number = 2;
  relay.enabled = true;
  zel::Upload::register_item(relay);
  zel::Door door;
  door.door_number = 1;
  door.name = "Front \"A\"";
  door.reserved = 9;
  door.reader_or_keypad = 2;
  door.grace_period = 5;
  door.is_exit = true;
  door.name_4 = "n4";
  door.name_8 = "n8";
  zel::Upload::register_item(door);
  zel::Camera camera;
  zel::Upload::register_item(camera);

  auto first = wait_sent(server, "register", 0);
  auto second = wait_sent(server, "register", 1);
  auto third = wait_sent(server, "register", 2);
  ASSERT_TRUE(first && second && third);
  EXPECT_EQ(stable(*first),
            envelope("zel-inbound", "register",
                     "{\"parent\":\"controllers\",\"type\":\"relays\",\"data\":{\"relay_number\":2,"
                     "\"name\":\"Relay 2\",\"enabled\":true,\"operating_mode\":false}}"));
  // Repeated "name" members survive the envelope, in their places.
  EXPECT_EQ(stable(*second),
            envelope("zel-inbound", "register",
                     "{\"parent\":\"controllers\",\"type\":\"doors\",\"data\":{\"door_number\":1,"
                     "\"name\":\"Front \\\"A\\\"\",\"enabled\":false,\"door_contact\":false,"
                     "\"rex_contact\":false,\"unlock_on_rex\":false,\"resettable_rex\":false,"
                     "\"reader_or_keypad\":2,\"relock_on_door_opening\":false,\"first_person_in\":false,"
                     "\"grace_period\":5,\"name\":\"n4\",\"is_exit\":true,"
                     "\"relock_on_rex_on_door_closing\":false,\"name\":\"n8\"}}"));
  EXPECT_EQ(stable(*third),
            envelope("zel-inbound", "register", "{\"parent\":\"nvrs\",\"type\":\"cameras\",\"data\":{}}"));

  // The same camera twice is announced twice; the identifier goes out as given.
  zel::Upload::register_camera("Cam-0A:1B");
  zel::Upload::register_camera("Cam-0A:1B");
  auto cam1 = wait_sent(server, "transaction", 0);
  auto cam2 = wait_sent(server, "transaction", 1);
  ASSERT_TRUE(cam1 && cam2);
  EXPECT_EQ(stable(*cam1), camera_announcement("Cam-0A:1B"));
  EXPECT_EQ(stable(*cam2), camera_announcement("Cam-0A:1B"));
  EXPECT_NE(*cam1, *cam2);  // two messages, each with its own id

  zel::Upload::cloud_sync();
  auto sync = wait_sent(server, "cloudsync", 0);
  ASSERT_TRUE(sync);
  EXPECT_EQ(stable(*sync), envelope("zel-inbound", "cloudsync", "{}"));
  EXPECT_EQ(count_sent(server, "register"), 3u);
  EXPECT_EQ(count_sent(server, "transaction"), 2u);
}

TEST(Registration, CameraSettingsAndActionSchedulesAreTransactions) {
  CloudServer server;
  LogCapture log;
  DeviceSession device(server);
  ASSERT_TRUE(wait_sent(server, "version", 0));

  zel::Upload::send_camera_setting("0a1b2c3d4e5f", "brightness", "50");
  zel::Upload::send_camera_setting("0a1b2c3d4e5f", "overlay", "{\"a\":1}");
  zel::Upload::send_camera_setting("0a1b2c3d4e5f", "brightness", "abc");  // not JSON: not sent
  zel::Upload::send_camera_setting("cam\"x", "say \"hi\"", " [1, 2] ");
  zel::Upload::send_action_scheduler("u-1", "3");
  zel::Upload::send_action_scheduler("u\"2", "4");  // the text no longer parses: not sent
  zel::Upload::send_action_scheduler("u-3", "");
  zel::Upload::cloud_sync();  // marks the end: everything before it has gone out by then
  ASSERT_TRUE(wait_sent(server, "cloudsync", 0));

  EXPECT_EQ(log.count("Error parsing stringified_value: 'abc'\n"), 1u);
  EXPECT_EQ(log.level_of("Error parsing stringified_value: 'abc'\n"), 2);
  ASSERT_EQ(count_sent(server, "transaction"), 5u);
  const std::string expected[] = {
      transaction("cameraSetting",
                  "{\"name\":\"brightness\",\"value\":\"50\",\"mac_address\":\"0a1b2c3d4e5f\"}"),
      transaction("cameraSetting",
                  "{\"name\":\"overlay\",\"value\":\"{\\\"a\\\":1}\",\"mac_address\":\"0a1b2c3d4e5f\"}"),
      transaction("cameraSetting",
                  "{\"name\":\"say \\\"hi\\\"\",\"value\":\" [1, 2] \",\"mac_address\":\"cam\\\"x\"}"),
      transaction("actionScheduler", "{\"action_scheduler_uuid\":\"u-1\",\"recurrence_count\":\"3\"}"),
      transaction("actionScheduler", "{\"action_scheduler_uuid\":\"u-3\",\"recurrence_count\":\"\"}"),
  };
  for (size_t i = 0; i < std::size(expected); ++i) {
    auto sent = wait_sent(server, "transaction", i);
    ASSERT_TRUE(sent) << i;
    EXPECT_EQ(stable(*sent), expected[i]) << i;
  }
}

}  // namespace
}  // namespace zel_test
