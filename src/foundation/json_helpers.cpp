#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "foundation/json_ptr.h"
#include "zel/json.h"

namespace zel {

CppJSON::CppJSON(const std::string& text) : root(cJSON_Parse(text.c_str())) {}

CppJSON::~CppJSON() {
  if (root != nullptr) cJSON_Delete(root);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) return std::string();
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string readFileStrict(const std::string& path) {
  std::string text = readFile(path);
  if (text.empty()) {
    std::cerr << "File is Empty or Does Not Exist - " << path << std::endl;
    std::exit(1);
  }
  return text;
}

cJSON* getJSON(const std::string& path) {
  cJSON* json = cJSON_Parse(readFile(path).c_str());
  if (json == nullptr) std::cout << "WARNING: getJSON read a NULL json from file: " << path << std::endl;
  return json;
}

void writeJSON(const std::string& path, cJSON* json) {
  char* text = cJSON_PrintUnformatted(json);
  if (text == nullptr) return;
  std::ofstream out(path, std::ios::trunc);
  out << text;
  cJSON_free(text);
}

bool JSONSetBool(const std::string& path, const std::string& key, bool value) {
  JsonPtr doc(getJSON(path));
  // Only an object has members: an array would take the boolean as a bare element, and
  // a scalar would silently keep nothing; either way the file is left as it was.
  if (!cJSON_IsObject(doc.get())) return false;
  cJSON* item = cJSON_GetObjectItemCaseSensitive(doc.get(), key.c_str());
  if (item != nullptr) {
    // Whatever the member was, it becomes a boolean in place, keeping its position.
    item->type = (item->type & (cJSON_IsReference | cJSON_StringIsConst)) |
                 (value ? cJSON_True : cJSON_False);
  } else {
    cJSON_AddBoolToObject(doc.get(), key.c_str(), value);
  }
  writeJSON(path, doc.get());
  return true;
}

}  // namespace zel
