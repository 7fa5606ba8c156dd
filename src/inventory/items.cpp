// The JSON of each device item. Extra text fields are all sent under "name", so an
// item may carry the key several times: the server reads them in order.
#include <cjson/cJSON.h>

#include "foundation/json_ptr.h"
#include "zel/items.h"

namespace zel {

namespace {

class ItemJson {
 public:
  ItemJson(const char* parent, const char* type) : root(cJSON_CreateObject()) {
    cJSON_AddStringToObject(root.get(), "parent", parent);
    cJSON_AddStringToObject(root.get(), "type", type);
    data = cJSON_AddObjectToObject(root.get(), "data");
  }
  ItemJson& number(const char* key, double v) {
    cJSON_AddNumberToObject(data, key, v);
    return *this;
  }
  ItemJson& boolean(const char* key, bool v) {
    cJSON_AddBoolToObject(data, key, v);
    return *this;
  }
  ItemJson& text(const char* key, const std::string& v) {
    cJSON_AddStringToObject(data, key, v.c_str());
    return *this;
  }
  ItemJson& extra_name(const std::string& v) {
    if (!v.empty()) cJSON_AddStringToObject(data, "name", v.c_str());
    return *this;
  }
  std::string print() const { return print_unformatted(root.get()); }

 private:
  JsonPtr root;
  cJSON* data;
};

std::string display_name(const std::string& name, const char* prefix, int32_t number) {
  return name.empty() ? prefix + std::to_string(number) : name;
}

}  // namespace

Item::~Item() = default;
Camera::~Camera() = default;
Relay::~Relay() = default;
Input::~Input() = default;
Door::~Door() = default;

std::string Camera::to_json() const {
  ItemJson j("nvrs", "cameras");
  j.extra_name(name);
  return j.print();
}

std::string Relay::to_json() const {
  ItemJson j("controllers", "relays");
  j.number("relay_number", relay_number)
      .text("name", display_name(name, "Relay ", relay_number))
      .boolean("enabled", enabled)
      .boolean("operating_mode", operating_mode)
      .extra_name(name_2)
      .extra_name(name_3)
      .extra_name(name_4);
  return j.print();
}

std::string Input::to_json() const {
  ItemJson j("controllers", "inputs");
  j.number("input_number", input_number)
      .text("name", display_name(name, "Input ", input_number))
      .boolean("enabled", enabled)
      .boolean("normal_condition_closed", normal_condition_closed)
      .number("end_of_line_resistor", end_of_line_resistor)
      .extra_name(name_2)
      .extra_name(name_3)
      .extra_name(name_4)
      .number("alarm_activation_temporary_timer", alarm_activation_temporary_timer)
      .number("tamper_activation_temporary_timer", tamper_activation_temporary_timer)
      .number("trouble_activation_temporary_timer", trouble_activation_temporary_timer)
      .extra_name(name_5);
  return j.print();
}

std::string Door::to_json() const {
  ItemJson j("controllers", "doors");
  j.number("door_number", door_number)
      .text("name", display_name(name, "Door ", door_number))
      .boolean("enabled", enabled)
      .boolean("door_contact", door_contact)
      .boolean("rex_contact", rex_contact)
      .boolean("unlock_on_rex", unlock_on_rex)
      .boolean("resettable_rex", resettable_rex)
      .number("reader_or_keypad", reader_or_keypad)
      .extra_name(name_2)
      .boolean("relock_on_door_opening", relock_on_door_opening)
      .extra_name(name_3)
      .boolean("first_person_in", first_person_in)
      .number("grace_period", grace_period)
      .extra_name(name_4)
      .extra_name(name_5)
      .extra_name(name_6)
      .extra_name(name_7)
      .boolean("is_exit", is_exit)
      .boolean("relock_on_rex_on_door_closing", relock_on_rex_on_door_closing)
      .extra_name(name_8)
      .extra_name(name_9);
  return j.print();
}

}  // namespace zel
