// What the device tells the cloud about its hardware, item by item and on the wire.
#include <gtest/gtest.h>

#include "support/peer.h"
#include "zel/items.h"

namespace zt {
namespace {

TEST(Items, JsonOfEachKind) {
  zel::Camera camera;
  zel::Relay relay;
  relay.relay_number = 3, relay.enabled = true, relay.name_3 = "third";
  zel::Door door;
  door.door_number = 1, door.reserved = 9, door.door_contact = true, door.reader_or_keypad = 2;
  door.name_2 = "n2", door.grace_period = 30, door.name_9 = "n9", door.is_exit = true;
  const std::pair<const zel::Item&, const char*> rows[] = {
      {camera, "{\"parent\":\"nvrs\",\"type\":\"cameras\",\"data\":{}}"},
      {relay, "{\"parent\":\"controllers\",\"type\":\"relays\",\"data\":{\"relay_number\":3,\"name\":"
              "\"Relay 3\",\"enabled\":true,\"operating_mode\":false,\"name\":\"third\"}}"},
      {door, "{\"parent\":\"controllers\",\"type\":\"doors\",\"data\":{\"door_number\":1,\"name\":\"Door 1\","
             "\"enabled\":false,\"door_contact\":true,\"rex_contact\":false,\"unlock_on_rex\":false,"
             "\"resettable_rex\":false,\"reader_or_keypad\":2,\"name\":\"n2\",\"relock_on_door_opening\":false,"
             "\"first_person_in\":false,\"grace_period\":30,\"is_exit\":true,"
             "\"relock_on_rex_on_door_closing\":false,\"name\":\"n9\"}}"},
  };
  for (const auto& [item, json] : rows) EXPECT_EQ(item.to_json(), json);
}

TEST(Registration, EachAnnouncementOnTheWire) {
  Cloud cloud;
  Device device(cloud);
  zel::Relay relay;
  zel::Upload::register_item(relay);
  zel::Upload::cloud_sync();
  zel::Upload::send_camera_setting("cam-7", "brightness", "{\"level\": 5}");
  zel::Upload::send_action_scheduler("sched-1", "3");
  zel::Upload::register_camera("cam-8");
  EXPECT_EQ(stable(cloud.sent("register").value_or("")), envelope("zel-inbound", "register", relay.to_json()));
  EXPECT_EQ(stable(cloud.sent("cloudsync").value_or("")), envelope("zel-inbound", "cloudsync", "{}"));
  std::vector<std::string> got;
  for (size_t i = 0; i < 3; ++i) got.push_back(stable(cloud.sent("transaction", i).value_or("")));
  std::sort(got.begin(), got.end());  // camera, scheduler, setting
  const std::string mac = kMacLower, time = "\"2018-03-01T12:00:00.000Z\"",
                    head = "{\"topic\":\"transaction\",\"nvrMac\":\"" + mac + "\",\"model\":\"";
  EXPECT_EQ(got, (std::vector<std::string>{
                     envelope("jobs", "transaction", "{\"apiVersion\":\"2\",\"method\":\"changed\",\"topic\":"
                              "\"transaction\",\"nvrMac\":\"" + mac + "\",\"model\":\"camera\",\"properties\":{"
                              "\"created_at\":" + time + ",\"deleted_at\":null,\"ip_address\":\"0.0.0.0\","
                              "\"is_fragmented_mp4\":false,\"is_hls\":false,\"is_live_h264\":false,\"is_ptz\":false,"
                              "\"is_zoom\":false,\"mac_address\":\"cam-8\",\"model\":\"Lumatrix-Camera\",\"name\":"
                              "\"ZelCloudLibCamera\",\"password\":\"24680\",\"transcode_audio\":true,"
                              "\"transcode_video\":false,\"updated_at\":" + time + ",\"username\":\"admin\"},"
                              "\"subject\":\"transaction\"}"),
                     envelope("jobs", "transaction", head + "actionScheduler\",\"method\":\"changed\",\"apiVersion\":"
                              "\"2\",\"properties\":{\"action_scheduler_uuid\":\"sched-1\",\"recurrence_count\":\"3\"}}"),
                     envelope("jobs", "transaction", head + "cameraSetting\",\"method\":\"changed\",\"apiVersion\":"
                              "\"2\",\"properties\":{\"name\":\"brightness\",\"value\":\"{\\\"level\\\": 5}\","
                              "\"mac_address\":\"cam-7\"}}")}));
  EXPECT_FALSE(cloud.sent("transaction", 3, 300ms));
}

}  // namespace
}  // namespace zt
