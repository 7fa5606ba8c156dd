#include <gtest/gtest.h>

#include "zel/items.h"

namespace zel {
namespace {

TEST(Items, Camera) {
  Camera cam;
  EXPECT_EQ(cam.to_json(), "{\"parent\":\"nvrs\",\"type\":\"cameras\",\"data\":{}}");
  cam.name = "Lobby \"A\"";
  const Item& item = cam;
  EXPECT_EQ(item.to_json(), "{\"parent\":\"nvrs\",\"type\":\"cameras\",\"data\":{\"name\":\"Lobby \\\"A\\\"\"}}");
}

TEST(Items, RelayFallsBackToItsNumberAndRepeatsName) {
  Relay r;
  r.relay_number = 2;
  r.enabled = true;
  EXPECT_EQ(r.to_json(),
            "{\"parent\":\"controllers\",\"type\":\"relays\",\"data\":{\"relay_number\":2,"
            "\"name\":\"Relay 2\",\"enabled\":true,\"operating_mode\":false}}");
  r.name = "Gate";
  r.operating_mode = true;
  r.name_2 = "b";
  r.name_4 = "d";
  EXPECT_EQ(r.to_json(),
            "{\"parent\":\"controllers\",\"type\":\"relays\",\"data\":{\"relay_number\":2,"
            "\"name\":\"Gate\",\"enabled\":true,\"operating_mode\":true,\"name\":\"b\",\"name\":\"d\"}}");
}

TEST(Items, InputTimersAreUnsignedBytes) {
  Input in;
  in.input_number = -3;
  in.normal_condition_closed = true;
  in.end_of_line_resistor = 2200;
  in.alarm_activation_temporary_timer = 255;
  in.tamper_activation_temporary_timer = 0;
  in.trouble_activation_temporary_timer = 7;
  in.name_3 = "n3";
  in.name_5 = "n5";
  EXPECT_EQ(in.to_json(),
            "{\"parent\":\"controllers\",\"type\":\"inputs\",\"data\":{\"input_number\":-3,"
            "\"name\":\"Input -3\",\"enabled\":false,\"normal_condition_closed\":true,"
            "\"end_of_line_resistor\":2200,\"name\":\"n3\",\"alarm_activation_temporary_timer\":255,"
            "\"tamper_activation_temporary_timer\":0,\"trouble_activation_temporary_timer\":7,"
            "\"name\":\"n5\"}}");
}

TEST(Items, DoorPlacesEveryExtraNameAndHidesTheReservedFlag) {
  Door d;
  d.door_number = -1;
  d.reserved = 0xAB;
  d.enabled = true;
  d.rex_contact = true;
  d.reader_or_keypad = 3;
  d.name_2 = "two";
  d.relock_on_door_opening = true;
  d.name_3 = "three";
  d.grace_period = 15;
  d.name_4 = "four";
  d.name_7 = "seven";
  d.is_exit = true;
  d.name_8 = "eight";
  d.name_9 = "nine";
  EXPECT_EQ(d.to_json(),
            "{\"parent\":\"controllers\",\"type\":\"doors\",\"data\":{\"door_number\":-1,"
            "\"name\":\"Door -1\",\"enabled\":true,\"door_contact\":false,\"rex_contact\":true,"
            "\"unlock_on_rex\":false,\"resettable_rex\":false,\"reader_or_keypad\":3,"
            "\"name\":\"two\",\"relock_on_door_opening\":true,\"name\":\"three\","
            "\"first_person_in\":false,\"grace_period\":15,\"name\":\"four\",\"name\":\"seven\","
            "\"is_exit\":true,\"relock_on_rex_on_door_closing\":false,\"name\":\"eight\","
            "\"name\":\"nine\"}}");
}

}  // namespace
}  // namespace zel
