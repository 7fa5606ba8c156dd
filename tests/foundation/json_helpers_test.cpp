#include <gtest/gtest.h>

#include <fstream>

#include "support/certs.h"
#include "zel/json.h"

namespace zel {
namespace {

class JsonFiles : public ::testing::Test {
 protected:
  std::string path(const std::string& name) { return dir + "/" + name; }
  void write(const std::string& name, const std::string& text) {
    std::ofstream(path(name)) << text;
  }
  std::string dir = zel_test::make_temp_dir("zel-json-");
};

TEST_F(JsonFiles, ReadFileIsSilentAboutMissingFiles) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  EXPECT_EQ(readFile(path("missing")), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  write("a.txt", "line1\nline2");
  EXPECT_EQ(readFile(path("a.txt")), "line1\nline2");
  EXPECT_EQ(readFileStrict(path("a.txt")), "line1\nline2");
}

TEST_F(JsonFiles, ReadFileStrictEndsTheProcessOnAnEmptyFile) {
  write("empty", "");
  EXPECT_EXIT(readFileStrict(path("empty")), ::testing::ExitedWithCode(1),
              "File is Empty or Does Not Exist - " + path("empty"));
}

TEST_F(JsonFiles, GetJsonWarnsOnStdoutAndDoesNotCheckTheType) {
  write("arr.json", "[1,2]");
  cJSON* arr = getJSON(path("arr.json"));
  ASSERT_NE(arr, nullptr);
  EXPECT_TRUE(cJSON_IsArray(arr));
  cJSON_Delete(arr);
  write("bad.json", "{nope");
  testing::internal::CaptureStdout();
  EXPECT_EQ(getJSON(path("bad.json")), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "WARNING: getJSON read a NULL json from file: " + path("bad.json") + "\n");
}

TEST_F(JsonFiles, SetBoolRewritesInPlaceOrAppends) {
  write("s.json", "{\"a\":\"x\",\"b\":1}");
  EXPECT_TRUE(JSONSetBool(path("s.json"), "a", true));
  EXPECT_EQ(readFile(path("s.json")), "{\"a\":true,\"b\":1}");
  write("s.json", "{\"a\":\"x\",\"b\":1}");
  EXPECT_TRUE(JSONSetBool(path("s.json"), "c", false));
  EXPECT_EQ(readFile(path("s.json")), "{\"a\":\"x\",\"b\":1,\"c\":false}");
  write("o.json", "{\"a\":{\"deep\":[1,2]},\"b\":true}");
  EXPECT_TRUE(JSONSetBool(path("o.json"), "b", false));
  EXPECT_TRUE(JSONSetBool(path("o.json"), "a", false));
  EXPECT_EQ(readFile(path("o.json")), "{\"a\":false,\"b\":false}");

  write("bad.json", "not json");
  testing::internal::CaptureStdout();
  EXPECT_FALSE(JSONSetBool(path("bad.json"), "a", true));
  EXPECT_NE(testing::internal::GetCapturedStdout().find("WARNING: getJSON"), std::string::npos);
  EXPECT_EQ(readFile(path("bad.json")), "not json");
}

TEST_F(JsonFiles, CppJsonOwnsTheTree) {
  CppJSON good("{\"k\":2}");
  ASSERT_NE(static_cast<cJSON*>(good), nullptr);
  EXPECT_EQ(cJSON_GetObjectItem(good, "k")->valueint, 2);
  CppJSON bad("{");
  EXPECT_EQ(static_cast<cJSON*>(bad), nullptr);
  cJSON* tree = cJSON_CreateObject();
  cJSON_AddNumberToObject(tree, "n", 5);
  writeJSON(path("w.json"), tree);
  cJSON_Delete(tree);
  EXPECT_EQ(readFile(path("w.json")), "{\"n\":5}");
}

}  // namespace
}  // namespace zel
