#include "foundation/envelope.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "foundation/time_utils.h"
#include "zel/msg_response.h"

namespace zel {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

// Replaces the parts that vary with the clock so that whole texts can be compared.
std::string stable(const std::string& text) {
  std::string s = std::regex_replace(text, std::regex("\"id\":\"([a-z0-9:]*?)[0-9]{16}\""),
                                     "\"id\":\"$1<us>\"");
  return std::regex_replace(s, std::regex("\"date\":\"[0-9T:Z-]{20}\""), "\"date\":\"<date>\"");
}

TEST(Envelope, MessageCarriesKeysInOrder) {
  DeviceInfo dev{"00aabbccddee", "p1", ""};
  std::string msg = makeMessage(dev, "zel-inbound", "version", "{\"a\":1}", true);
  EXPECT_EQ(stable(msg),
            "{\"id\":\"00aabbccddee<us>\",\"from\":\"00aabbccddee\",\"to\":\"zel-inbound\","
            "\"subject\":\"version\",\"date\":\"<date>\",\"signature\":\"n/a\",\"content\":{\"a\":1}}");
  EXPECT_THAT(msg, HasSubstr("\"date\":\"" + getISOTime().substr(0, 13)));
}

TEST(Envelope, ContentForms) {
  DeviceInfo dev{"m", "", "controller"};
  EXPECT_EQ(stable(makeMessage(dev, "jobs", "ping", "\"ping\"", true)),
            "{\"id\":\"m<us>\",\"from\":\"m\",\"to\":\"jobs\",\"subject\":\"ping\",\"date\":\"<date>\","
            "\"signature\":\"n/a\",\"fromDeviceType\":\"controller\",\"content\":\"ping\"}");
  EXPECT_THAT(makeMessage(dev, "jobs", "s", "a \"b\"", false), HasSubstr(",\"content\":\"a \\\"b\\\"\"}"));

  testing::internal::CaptureStdout();
  std::string broken = makeMessage(dev, "jobs", "s", "x", true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error parsing JSON: x\n");
  EXPECT_THAT(broken, Not(HasSubstr("content")));
  EXPECT_THAT(broken, MatchesRegex(".*\"fromDeviceType\":\"controller\"\\}"));
}

TEST(Envelope, ReplyWrapsDetailsAndEndsWithOriginalId) {
  DeviceInfo dev{"0a1b2c3d4e5f", "", ""};
  std::string reply = composeReply(dev, "req-7", "zel-cloud", "details", "OK", "{\"k\":[1,2]}");
  EXPECT_EQ(stable(reply),
            "{\"id\":\"0a1b2c3d4e5f<us>\",\"from\":\"0a1b2c3d4e5f\",\"to\":\"zel-cloud\","
            "\"subject\":\"details\",\"date\":\"<date>\",\"signature\":\"n/a\",\"content\":{"
            "\"status\":\"OK\",\"details\":{\"k\":[1,2]}},\"original_id\":\"req-7\"}");

  std::string not_impl =
      composeReply(dev, "1", "c", "action", "ERROR", MsgResponse::NotImpl().content);
  EXPECT_THAT(not_impl,
              HasSubstr("\"content\":{\"status\":\"ERROR\",\"details\":{\"error\":\"Not implemented\"}}"));
  EXPECT_THAT(composeReply(dev, "1", "c", "x", "OK", MsgResponse::Okay().content),
              HasSubstr("{\"status\":\"OK\",\"details\":\"OK\"}"));
}

TEST(Envelope, ReplyRefusals) {
  DeviceInfo dev{"m", "", ""};
  testing::internal::CaptureStdout();
  EXPECT_EQ(composeReply(dev, "1", "c", "s", "OK", ""), "");
  EXPECT_EQ(composeReply(dev, "1", "c", "s", "OK", "plain"), "");
  EXPECT_EQ(composeReply(dev, "1", "", "s", "OK", "1"), "");
  EXPECT_EQ(composeReply(dev, "1", "c", "", "OK", "1"), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Could not parse details: \n\nCould not parse details: \nplain\n"
            "From or Subject are empty\nFrom or Subject are empty\n");
}

TEST(MsgResponseTexts, FixedBodies) {
  EXPECT_EQ(MsgResponse::Okay().content, "\"OK\"");
  EXPECT_TRUE(MsgResponse::Okay().ok);
  EXPECT_EQ(MsgResponse::NotImpl().content, "{\"error\": \"Not implemented\"}");
  EXPECT_EQ(MsgResponse::NotImpl().content.size(), 28u);
  EXPECT_FALSE(MsgResponse::NotImpl().ok);
  EXPECT_TRUE(MsgResponse::EmptyResponse().content.empty());
  MsgResponse e = MsgResponse::Error("{}");
  EXPECT_FALSE(e.ok);
  EXPECT_EQ(e.content, "{}");
  MsgResponse plain("plain");
  EXPECT_TRUE(plain.ok);
}

}  // namespace
}  // namespace zel
