// Two things a host hands the library text through, with arbitrary values:
//  - device items (camera, relay, input, door): to_json must be a JSON document that
//    parses back and carries every field, in order, with its value;
//  - the JSON file helpers over a file holding arbitrary bytes: readFile gives exactly
//    the bytes, getJSON parses them, JSONSetBool sets one member and keeps the rest,
//    writeJSON writes the compact text.
//
// Input layout (FuzzedDataProvider): the last byte chooses the case (camera, relay,
// input, door, file); the field values follow.
#include <cjson/cJSON.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "foundation/json_ptr.h"
#include "fuzz_support.h"
#include "zel/items.h"
#include "zel/json.h"

namespace {

using zel::JsonPtr;
using zel::print_unformatted;

// The text of a value on the wire: cJSON strings are C strings, so a NUL ends it.
std::string wire_text(const std::string& s) { return std::string(s.c_str()); }

struct Field {
  enum Kind { kNumber, kBool, kText } kind;
  std::string key;
  double number = 0;
  bool flag = false;
  std::string text;
};

class Expected {
 public:
  Expected& number(const char* key, double v) {
    fields.push_back({Field::kNumber, key, v, false, {}});
    return *this;
  }
  Expected& boolean(const char* key, bool v) {
    fields.push_back({Field::kBool, key, 0, v, {}});
    return *this;
  }
  Expected& text(const char* key, const std::string& v) {
    fields.push_back({Field::kText, key, 0, false, wire_text(v)});
    return *this;
  }
  // Extra names are sent only when the host set them.
  Expected& extra_name(const std::string& v) {
    if (!v.empty()) text("name", v);
    return *this;
  }
  std::vector<Field> fields;
};

std::string display_name(const std::string& name, const char* prefix, int32_t number) {
  return name.empty() ? prefix + std::to_string(number) : name;
}

void check_item(const std::string& json, const char* parent, const char* type,
                const Expected& expected) {
  JsonPtr root(cJSON_Parse(json.c_str()));
  FUZZ_CHECK(cJSON_IsObject(root.get()), "to_json is not a JSON object: %s", json.c_str());
  // parent, type, data: exactly these, in this order.
  const cJSON* first = root->child;
  FUZZ_CHECK(first && first->string && std::string(first->string) == "parent" &&
                 cJSON_IsString(first) && std::string(first->valuestring) == parent,
             "bad parent: %s", json.c_str());
  const cJSON* second = first->next;
  FUZZ_CHECK(second && second->string && std::string(second->string) == "type" &&
                 cJSON_IsString(second) && std::string(second->valuestring) == type,
             "bad type: %s", json.c_str());
  const cJSON* data = second->next;
  FUZZ_CHECK(data && data->string && std::string(data->string) == "data" && cJSON_IsObject(data) &&
                 data->next == nullptr,
             "bad data: %s", json.c_str());

  const cJSON* item = data->child;
  for (const Field& f : expected.fields) {
    FUZZ_CHECK(item != nullptr, "field '%s' missing: %s", f.key.c_str(), json.c_str());
    FUZZ_CHECK(item->string != nullptr && f.key == item->string, "field '%s' where '%s' belongs: %s",
               item->string ? item->string : "(null)", f.key.c_str(), json.c_str());
    switch (f.kind) {
      case Field::kNumber:
        FUZZ_CHECK(cJSON_IsNumber(item) && item->valuedouble == f.number,
                   "number '%s' is not %.17g: %s", f.key.c_str(), f.number, json.c_str());
        break;
      case Field::kBool:
        FUZZ_CHECK(cJSON_IsBool(item) && cJSON_IsTrue(item) == f.flag, "bool '%s' is not %d: %s",
                   f.key.c_str(), f.flag, json.c_str());
        break;
      case Field::kText:
        FUZZ_CHECK(cJSON_IsString(item) && f.text == item->valuestring,
                   "text '%s' changed: %s", f.key.c_str(), json.c_str());
        break;
    }
    item = item->next;
  }
  FUZZ_CHECK(item == nullptr, "unexpected field '%s': %s", item->string ? item->string : "",
             json.c_str());
}

std::string text(FuzzedDataProvider& fdp) { return fdp.ConsumeRandomLengthString(48); }

void fuzz_camera(FuzzedDataProvider& fdp) {
  zel::Camera c;
  c.name = text(fdp);
  Expected e;
  e.extra_name(c.name);
  check_item(c.to_json(), "nvrs", "cameras", e);
}

void fuzz_relay(FuzzedDataProvider& fdp) {
  zel::Relay r;
  r.relay_number = fdp.ConsumeIntegral<int32_t>();
  r.name = text(fdp);
  r.enabled = fdp.ConsumeBool();
  r.operating_mode = fdp.ConsumeBool();
  r.name_2 = text(fdp);
  r.name_3 = text(fdp);
  r.name_4 = text(fdp);
  Expected e;
  e.number("relay_number", r.relay_number)
      .text("name", display_name(r.name, "Relay ", r.relay_number))
      .boolean("enabled", r.enabled)
      .boolean("operating_mode", r.operating_mode)
      .extra_name(r.name_2)
      .extra_name(r.name_3)
      .extra_name(r.name_4);
  check_item(r.to_json(), "controllers", "relays", e);
}

void fuzz_input(FuzzedDataProvider& fdp) {
  zel::Input in;
  in.input_number = fdp.ConsumeIntegral<int32_t>();
  in.name = text(fdp);
  in.enabled = fdp.ConsumeBool();
  in.normal_condition_closed = fdp.ConsumeBool();
  in.end_of_line_resistor = fdp.ConsumeIntegral<int32_t>();
  in.name_2 = text(fdp);
  in.name_3 = text(fdp);
  in.name_4 = text(fdp);
  in.alarm_activation_temporary_timer = fdp.ConsumeIntegral<uint8_t>();
  in.tamper_activation_temporary_timer = fdp.ConsumeIntegral<uint8_t>();
  in.trouble_activation_temporary_timer = fdp.ConsumeIntegral<uint8_t>();
  in.name_5 = text(fdp);
  Expected e;
  e.number("input_number", in.input_number)
      .text("name", display_name(in.name, "Input ", in.input_number))
      .boolean("enabled", in.enabled)
      .boolean("normal_condition_closed", in.normal_condition_closed)
      .number("end_of_line_resistor", in.end_of_line_resistor)
      .extra_name(in.name_2)
      .extra_name(in.name_3)
      .extra_name(in.name_4)
      .number("alarm_activation_temporary_timer", in.alarm_activation_temporary_timer)
      .number("tamper_activation_temporary_timer", in.tamper_activation_temporary_timer)
      .number("trouble_activation_temporary_timer", in.trouble_activation_temporary_timer)
      .extra_name(in.name_5);
  check_item(in.to_json(), "controllers", "inputs", e);
}

void fuzz_door(FuzzedDataProvider& fdp) {
  zel::Door d;
  d.door_number = fdp.ConsumeIntegral<int32_t>();
  d.name = text(fdp);
  d.reserved = fdp.ConsumeIntegral<uint8_t>();
  d.enabled = fdp.ConsumeBool();
  d.door_contact = fdp.ConsumeBool();
  d.rex_contact = fdp.ConsumeBool();
  d.unlock_on_rex = fdp.ConsumeBool();
  d.resettable_rex = fdp.ConsumeBool();
  d.reader_or_keypad = fdp.ConsumeIntegral<int32_t>();
  d.name_2 = text(fdp);
  d.relock_on_door_opening = fdp.ConsumeBool();
  d.name_3 = text(fdp);
  d.first_person_in = fdp.ConsumeBool();
  d.grace_period = fdp.ConsumeIntegral<int32_t>();
  d.name_4 = text(fdp);
  d.name_5 = text(fdp);
  d.name_6 = text(fdp);
  d.name_7 = text(fdp);
  d.is_exit = fdp.ConsumeBool();
  d.relock_on_rex_on_door_closing = fdp.ConsumeBool();
  d.name_8 = text(fdp);
  d.name_9 = text(fdp);
  Expected e;
  e.number("door_number", d.door_number)
      .text("name", display_name(d.name, "Door ", d.door_number))
      .boolean("enabled", d.enabled)
      .boolean("door_contact", d.door_contact)
      .boolean("rex_contact", d.rex_contact)
      .boolean("unlock_on_rex", d.unlock_on_rex)
      .boolean("resettable_rex", d.resettable_rex)
      .number("reader_or_keypad", d.reader_or_keypad)
      .extra_name(d.name_2)
      .boolean("relock_on_door_opening", d.relock_on_door_opening)
      .extra_name(d.name_3)
      .boolean("first_person_in", d.first_person_in)
      .number("grace_period", d.grace_period)
      .extra_name(d.name_4)
      .extra_name(d.name_5)
      .extra_name(d.name_6)
      .extra_name(d.name_7)
      .boolean("is_exit", d.is_exit)
      .boolean("relock_on_rex_on_door_closing", d.relock_on_rex_on_door_closing)
      .extra_name(d.name_8)
      .extra_name(d.name_9);
  check_item(d.to_json(), "controllers", "doors", e);
}

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  FUZZ_CHECK(out.good(), "could not write %s", path.c_str());
}

void fuzz_files(FuzzedDataProvider& fdp) {
  const std::string key = fdp.ConsumeRandomLengthString(32);
  const bool value = fdp.ConsumeBool();
  const std::string bytes = fdp.ConsumeRemainingBytesAsString();
  const std::string doc_path = zel_fuzz::scratch_dir() + "/doc.json";
  const std::string out_path = zel_fuzz::scratch_dir() + "/out.json";

  write_bytes(doc_path, bytes);
  FUZZ_CHECK(zel::readFile(doc_path) == bytes, "readFile changed %zu bytes", bytes.size());

  // What the helpers should see: the text up to the first NUL, parsed by cJSON.
  JsonPtr expected(cJSON_Parse(bytes.c_str()));
  {
    JsonPtr got(zel::getJSON(doc_path));
    FUZZ_CHECK((got == nullptr) == (expected == nullptr), "getJSON disagrees with cJSON_Parse");
    if (got)
      FUZZ_CHECK(print_unformatted(got.get()) == print_unformatted(expected.get()),
                 "getJSON read another document");
  }

  if (expected) {
    zel::writeJSON(out_path, expected.get());
    FUZZ_CHECK(zel::readFile(out_path) == print_unformatted(expected.get()),
               "writeJSON wrote something else");
  }

  const bool set = zel::JSONSetBool(doc_path, key, value);
  const std::string after = zel::readFile(doc_path);
  if (!set) {
    FUZZ_CHECK(after == bytes, "JSONSetBool failed but changed the file");
    FUZZ_CHECK(!cJSON_IsObject(expected.get()), "JSONSetBool refused a JSON object");
    return;
  }
  // Only a top-level object has members to set.
  FUZZ_CHECK(cJSON_IsObject(expected.get()), "JSONSetBool claims to have set '%s' in: %s",
             key.c_str(), after.c_str());
  // The first member of that name becomes the boolean in place; without one it is appended.
  cJSON* flag = cJSON_CreateBool(value);
  if (cJSON_GetObjectItemCaseSensitive(expected.get(), key.c_str()) != nullptr)
    cJSON_ReplaceItemInObjectCaseSensitive(expected.get(), key.c_str(), flag);
  else
    cJSON_AddItemToObject(expected.get(), key.c_str(), flag);
  FUZZ_CHECK(after == print_unformatted(expected.get()), "JSONSetBool wrote '%s', expected '%s'",
             after.c_str(), print_unformatted(expected.get()).c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  zel_fuzz::scratch_dir();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider fdp(data, size);
  switch (fdp.ConsumeIntegralInRange<int>(0, 4)) {
    case 0:
      fuzz_camera(fdp);
      break;
    case 1:
      fuzz_relay(fdp);
      break;
    case 2:
      fuzz_input(fdp);
      break;
    case 3:
      fuzz_door(fdp);
      break;
    default:
      fuzz_files(fdp);
      break;
  }
  return 0;
}
