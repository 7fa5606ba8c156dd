// Device items a host registers with Upload::register_item. Fill the public fields;
// to_json gives the exact text sent to the cloud.
#pragma once

#include <cstdint>
#include <string>

#include "zel/export.h"

namespace zel {

class ZEL_EXPORT Item {
 public:
  virtual std::string to_json() const = 0;
  virtual ~Item();
};

class ZEL_EXPORT Camera : public Item {
 public:
  std::string to_json() const override;
  ~Camera() override;

  std::string name;
};

class ZEL_EXPORT Relay : public Item {
 public:
  std::string to_json() const override;
  ~Relay() override;

  int32_t relay_number = 0;
  std::string name;
  bool enabled = false;
  bool operating_mode = false;
  std::string name_2;
  std::string name_3;
  std::string name_4;
};

class ZEL_EXPORT Input : public Item {
 public:
  std::string to_json() const override;
  ~Input() override;

  int32_t input_number = 0;
  std::string name;
  bool enabled = false;
  bool normal_condition_closed = false;
  int32_t end_of_line_resistor = 0;
  std::string name_2;
  std::string name_3;
  std::string name_4;
  uint8_t alarm_activation_temporary_timer = 0;
  uint8_t tamper_activation_temporary_timer = 0;
  uint8_t trouble_activation_temporary_timer = 0;
  std::string name_5;
};

class ZEL_EXPORT Door : public Item {
 public:
  std::string to_json() const override;
  ~Door() override;

  int32_t door_number = 0;
  std::string name;
  uint8_t reserved = 0;  // kept for the host; never sent
  bool enabled = false;
  bool door_contact = false;
  bool rex_contact = false;
  bool unlock_on_rex = false;
  bool resettable_rex = false;
  int32_t reader_or_keypad = 0;
  std::string name_2;
  bool relock_on_door_opening = false;
  std::string name_3;
  bool first_person_in = false;
  int32_t grace_period = 0;
  std::string name_4;
  std::string name_5;
  std::string name_6;
  std::string name_7;
  bool is_exit = false;
  bool relock_on_rex_on_door_closing = false;
  std::string name_8;
  std::string name_9;
};

}  // namespace zel
