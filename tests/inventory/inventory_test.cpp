// What the device tells the cloud about its hardware: the JSON of each item kind, and
// each announcement as it crosses the wire.
#include <gtest/gtest.h>

#include "support/cloud.h"
#include "zel/items.h"

namespace zt {
namespace {

TEST(Items, JsonOfEachKind) {
  zel::Camera lobby;
  lobby.name = "Lobby \"A\"";
  zel::Relay relay;
  relay.relay_number = 3;
  relay.enabled = true;
  relay.name_3 = "third";
  zel::Input input;
  input.input_number = 2;
  input.name = "Gate";
  input.end_of_line_resistor = 2200;
  input.name_2 = "n2";
  input.alarm_activation_temporary_timer = 5;
  input.name_5 = "n5";
  zel::Door door;
  door.door_number = 1;
  door.reserved = 9;  // never sent
  door.door_contact = true;
  door.reader_or_keypad = 2;
  door.name_2 = "n2";
  door.grace_period = 30;
  door.name_9 = "n9";
  door.is_exit = true;
  struct Row {
    const zel::Item& item;
    const char* json;
  } rows[] = {
      {zel::Camera(), "{\"parent\":\"nvrs\",\"type\":\"cameras\",\"data\":{}}"},
      {lobby, "{\"parent\":\"nvrs\",\"type\":\"cameras\",\"data\":{\"name\":\"Lobby \\\"A\\\"\"}}"},
      {relay, "{\"parent\":\"controllers\",\"type\":\"relays\",\"data\":{\"relay_number\":3,\"name\":"
              "\"Relay 3\",\"enabled\":true,\"operating_mode\":false,\"name\":\"third\"}}"},
      {input, "{\"parent\":\"controllers\",\"type\":\"inputs\",\"data\":{\"input_number\":2,\"name\":\"Gate\","
              "\"enabled\":false,\"normal_condition_closed\":false,\"end_of_line_resistor\":2200,\"name\":\"n2\","
              "\"alarm_activation_temporary_timer\":5,\"tamper_activation_temporary_timer\":0,"
              "\"trouble_activation_temporary_timer\":0,\"name\":\"n5\"}}"},
      {door, "{\"parent\":\"controllers\",\"type\":\"doors\",\"data\":{\"door_number\":1,\"name\":\"Door 1\","
             "\"enabled\":false,\"door_contact\":true,\"rex_contact\":false,\"unlock_on_rex\":false,"
             "\"resettable_rex\":false,\"reader_or_keypad\":2,\"name\":\"n2\",\"relock_on_door_opening\":false,"
             "\"first_person_in\":false,\"grace_period\":30,\"is_exit\":true,"
             "\"relock_on_rex_on_door_closing\":false,\"name\":\"n9\"}}"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.json);
    EXPECT_EQ(row.item.to_json(), row.json);
  }
}

TEST(Registration, EachAnnouncementOnTheWire) {
  Cloud cloud;
  Device device(cloud);
  zel::Relay relay;
  relay.relay_number = 1;
  zel::Upload::register_item(relay);
  zel::Upload::cloud_sync();
  zel::Upload::send_camera_setting("cam-7", "brightness", "{\"level\": 5}");
  zel::Upload::send_camera_setting("cam-7", "broken", "{not json");  // dropped
  zel::Upload::send_action_scheduler("sched-1", "3");
  zel::Upload::register_camera("cam-8");
  const std::string head = std::string("{\"topic\":\"transaction\",\"nvrMac\":\"") + kMacLower;
  EXPECT_EQ(stable(cloud.sent("register").value_or("")), envelope("zel-inbound", "register", relay.to_json()));
  EXPECT_EQ(stable(cloud.sent("cloudsync").value_or("")), envelope("zel-inbound", "cloudsync", "{}"));
  std::vector<std::string> transactions;
  for (size_t i = 0; i < 3; ++i) transactions.push_back(stable(cloud.sent("transaction", i).value_or("")));
  std::sort(transactions.begin(), transactions.end());  // camera, scheduler, setting
  std::vector<std::string> want = {
      envelope("jobs", "transaction", head + "\",\"model\":\"actionScheduler\",\"method\":\"changed\","
               "\"apiVersion\":\"2\",\"properties\":{\"action_scheduler_uuid\":\"sched-1\",\"recurrence_count\":\"3\"}}"),
      envelope("jobs", "transaction", head + "\",\"model\":\"cameraSetting\",\"method\":\"changed\","
               "\"apiVersion\":\"2\",\"properties\":{\"name\":\"brightness\",\"value\":\"{\\\"level\\\": 5}\","
               "\"mac_address\":\"cam-7\"}}"),
  };
  EXPECT_EQ(std::vector<std::string>(transactions.begin() + 1, transactions.end()), want);
  EXPECT_NE(transactions[0].find("\"mac_address\":\"cam-8\",\"model\":\"Lumatrix-Camera\""),
            std::string::npos) << transactions[0];
  EXPECT_NE(transactions[0].find("\"password\":\"24680\""), std::string::npos);
  EXPECT_FALSE(cloud.sent("transaction", 3, 300ms));
}

}  // namespace
}  // namespace zt
