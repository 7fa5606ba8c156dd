// Helpers for comparing what crossed the wire: texts are compared whole, with only the
// parts that follow the clock ("id" digits and "date") replaced by placeholders.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace zel_test {

// "id":"<mac><16 digits>" becomes "id":"<mac><us>"; "date":"<ISO>" becomes "date":"<date>".
std::string stable(const std::string& text);

// The string value of a top-level member of a JSON text ("" when absent).
std::string json_string(const std::string& text, const char* member);

// The compact text of a member of a JSON text ("" when absent).
std::string json_member(const std::string& text, const char* member);

// The version document of a device connected without account, partner or serial number.
extern const std::string kVersionPlain;

// A message from the test device (DeviceSession's MAC) as stable() shows it.
std::string envelope(const std::string& to, const std::string& subject, const std::string& content);

// The device's announcement of a camera, as stable() shows it.
std::string camera_announcement(const std::string& camera);

// Polls pred every 10 ms until it holds or the time is up.
bool eventually(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

}  // namespace zel_test
