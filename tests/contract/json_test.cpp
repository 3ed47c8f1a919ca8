#include "contract/json.h"

#include <gtest/gtest.h>

#include <string>

namespace zelta {
namespace {

TEST(Json, Object_IsItsMembersAsTexts) {
  const auto object =
      parseJsonObject(" { \"a\" : \"x\", \"b\":-12.5e3 ,\"c\":true,\"d\":null,\"\":\"\" } \n");
  ASSERT_TRUE(object);
  EXPECT_EQ(*object,
            (JsonObject{{"a", "x"}, {"b", "-12.5e3"}, {"c", "true"}, {"d", "null"}, {"", ""}}));
  EXPECT_EQ(parseJsonObject("{}"), JsonObject());
}

TEST(Json, QuotedText_ReadsBackAsItWas) {
  const std::string text = std::string("a\"b\\c\n\x01\x1F ä </script> ") + '\0' + "end";
  const auto object = parseJsonObject("{\"t\":" + quoteJson(text) + "}");
  ASSERT_TRUE(object);
  EXPECT_EQ(object->at("t"), text);
  EXPECT_EQ(quoteJson("\"\\\n"), "\"\\\"\\\\\\u000A\"");
}

TEST(Json, Escapes_AreRead) {
  const auto object = parseJsonObject(R"({"t":"\/\b\f\n\r\t\u0041\u00e4\u20AC"})");
  ASSERT_TRUE(object);
  EXPECT_EQ(object->at("t"), "/\b\f\n\r\tA\xC3\xA4\xE2\x82\xAC");
}

TEST(Json, AnythingElse_IsNone) {
  for (const char* text :
       {"", "x", "[]", "{", "{\"a\"}", "{\"a\":}", "{\"a\":1", "{\"a\":\"x}", "{\"a\":1,}",
        "{\"a\":1} x", "{\"a\":{}}", "{\"a\":[1]}", "{a:1}", "{\"a\":\"\\x\"}", "{\"a\":\"\\u12\"}",
        "{\"a\":\"\\u12G4\"}", "{\"a\":\"\\"}) {
    EXPECT_FALSE(parseJsonObject(text)) << text;
  }
}

}  // namespace
}  // namespace zelta
