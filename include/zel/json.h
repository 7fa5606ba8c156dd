// JSON and file helpers the library uses and a host may use too.
#pragma once

#include <cjson/cJSON.h>

#include <string>

#include "zel/export.h"

namespace zel {

// Owns one parsed cJSON tree; null when the text did not parse.
class ZEL_EXPORT CppJSON {
 public:
  explicit CppJSON(const std::string& text);
  ~CppJSON();
  CppJSON(const CppJSON&) = delete;
  CppJSON& operator=(const CppJSON&) = delete;

  operator cJSON*() const { return root; }  // NOLINT: the tree stays owned here

  cJSON* root = nullptr;
};

// Whole file as text; "" when it is missing or unreadable.
ZEL_EXPORT std::string readFile(const std::string& path);
// Like readFile, but a missing or empty file ends the process with status 1.
ZEL_EXPORT std::string readFileStrict(const std::string& path);
// Parsed file (the caller deletes it) or null, with a warning on standard output.
ZEL_EXPORT cJSON* getJSON(const std::string& path);
// Writes the compact text of `json` to `path`; silent either way.
ZEL_EXPORT void writeJSON(const std::string& path, cJSON* json);
// Sets or appends a top-level boolean in a JSON file; false (file untouched) unless it
// holds a JSON object.
ZEL_EXPORT bool JSONSetBool(const std::string& path, const std::string& key, bool value);

}  // namespace zel
