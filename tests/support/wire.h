// Helpers for comparing what crossed the wire: texts are compared whole, with only the
// parts that follow the clock ("id" digits and "date") replaced by placeholders.
#pragma once

#include <string>

namespace zel_test {

// "id":"<mac><16 digits>" becomes "id":"<mac><us>"; "date":"<ISO>" becomes "date":"<date>".
std::string stable(const std::string& text);

// The string value of a top-level member of a JSON text ("" when absent).
std::string json_string(const std::string& text, const char* member);

// The compact text of a member of a JSON text ("" when absent).
std::string json_member(const std::string& text, const char* member);

}  // namespace zel_test
