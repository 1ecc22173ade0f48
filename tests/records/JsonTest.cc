#include <gtest/gtest.h>

#include "records/Json.h"
#include "records/JsonReading.h"

namespace hvfp {
namespace {

JsonValue parse(std::string_view text) {
  auto v = objectFromJSONString(text);
  EXPECT_TRUE(v.has_value()) << text;
  return v ? *v : JsonValue();
}

TEST(RecordsJsonParse, AcceptsOnlyValidArraysAndObjects) {
  EXPECT_TRUE(objectFromJSONString("{}"));
  EXPECT_TRUE(objectFromJSONString("[1,2]"));
  EXPECT_FALSE(objectFromJSONString(""));
  EXPECT_FALSE(objectFromJSONString("null"));
  EXPECT_FALSE(objectFromJSONString("5"));
  EXPECT_FALSE(objectFromJSONString("{\"a\":1"));
  EXPECT_FALSE(objectFromJSONString("{\"a\":1} x"));
  EXPECT_FALSE(objectFromJSONString("{\"a\":tru}"));
  EXPECT_FALSE(objectFromJSONString("\xff\xfe{}"));
}

TEST(RecordsJsonParse, RepeatedKeyKeepsLastValue) {
  JsonValue v = parse(R"({"a":1,"a":"two"})");
  ASSERT_TRUE(v.find("a"));
  EXPECT_EQ(*v.find("a")->string(), "two");
}

TEST(RecordsJsonWrite, CompactSortedWithPlatformEscaping) {
  JsonObject o;
  o["b"] = "x/y\"z\\";
  o["a"] = JsonArray{1, -2, true, nullptr, 2.5};
  o["c\n"] = std::string("\x01\t");
  EXPECT_EQ(*JSONString(o), R"({"a":[1,-2,true,null,2.5],"b":"x\/y\"z\\","c\n":"\u0001\t"})");
}

TEST(RecordsJsonWrite, KeepsUtf8AndRefusesScalarsAndNonFinite) {
  JsonObject o;
  o["name"] = "é/中";
  EXPECT_EQ(*JSONString(o), "{\"name\":\"é\\/中\"}");
  EXPECT_FALSE(JSONString(JsonValue(5)));
  EXPECT_FALSE(JSONString(JsonArray{JsonValue(1.0 / 0.0)}));
}

TEST(RecordsJsonWrite, ParsedTextWritesBackByteIdentical) {
  std::string text =
      R"({"a":{"b":[1,2,{"c":"d\/e"}]},"n":-9223372036854775808,"u":18446744073709551615})";
  EXPECT_EQ(*JSONString(parse(text)), text);
}

// A number too large for 64 bits keeps the rest of the text: the tree holds
// it as its text, readings take it as an absent key, and it writes back as it
// came.
TEST(RecordsJsonParse, NumbersPastSixtyFourBitsKeepTheirText) {
  std::string text =
      R"({"a":[-99999999999999999999,1e400],"n":5,"v":18446744073709551616,"w":1E+999})";
  JsonValue v = parse(text);
  EXPECT_EQ(*v.find("v"), JsonValue(JsonNumberText{"18446744073709551616"}));
  EXPECT_TRUE(v.find("w")->isNumber());
  EXPECT_EQ(readInteger(v, "v"), 0);
  EXPECT_EQ(readInteger32(v, "w"), 0);
  EXPECT_EQ(readText(v, "v"), std::nullopt);
  EXPECT_EQ(readInteger(v, "n"), 5);
  EXPECT_EQ(*JSONString(v), text);
  EXPECT_EQ(JSONString(JsonArray{JsonNumberText{"12x"}}), std::nullopt);
}

int64_t intOf(std::string_view json) { return readInteger(parse(json), "v"); }
int64_t int32Of(std::string_view json) { return readInteger32(parse(json), "v"); }

TEST(RecordsJsonReading, IntegerReadingOfEveryKind) {
  EXPECT_EQ(intOf(R"({"v":"2048"})"), 2048);
  EXPECT_EQ(intOf(R"({"v":12.9})"), 12);
  EXPECT_EQ(intOf(R"({"v":-12.9})"), -12);
  EXPECT_EQ(intOf(R"({"v":true})"), 1);
  EXPECT_EQ(intOf(R"({"v":false})"), 0);
  EXPECT_EQ(intOf(R"({"v":"5"})"), 5);
  EXPECT_EQ(intOf(R"({"v":" -7x"})"), -7);
  EXPECT_EQ(intOf(R"({"v":"x"})"), 0);
  EXPECT_EQ(intOf(R"({"w":3})"), 0);
  EXPECT_EQ(intOf(R"({"v":"99999999999999999999"})"), INT64_MAX);
  EXPECT_EQ(intOf(R"({"v":1e300})"), INT64_MAX);
}

TEST(RecordsJsonReading, WrongShapesReadAsAbsent) {
  EXPECT_EQ(intOf(R"({"v":null})"), 0);
  EXPECT_EQ(intOf(R"({"v":[1]})"), 0);
  EXPECT_EQ(intOf(R"({"v":{"x":1}})"), 0);
  EXPECT_EQ(readText(parse(R"({"v":5})"), "v"), std::nullopt);
  EXPECT_EQ(readText(parse(R"({"v":null})"), "v"), std::nullopt);
  EXPECT_EQ(readText(parse(R"({"v":""})"), "v"), std::string());
}

TEST(RecordsJsonReading, ThirtyTwoBitReading) {
  EXPECT_EQ(int32Of(R"({"v":"4194304"})"), 4194304);
  EXPECT_EQ(int32Of(R"({"v":"5000000000"})"), INT32_MAX);
  EXPECT_EQ(int32Of(R"({"v":"-5000000000"})"), INT32_MIN);
  EXPECT_EQ(int32Of(R"({"v":4294967297})"), 1);  // a number keeps its low 32 bits
  EXPECT_EQ(int32Of(R"({"v":-1})"), -1);
}

TEST(RecordsJsonReading, UnsignedAboveSignedRangeKeepsBits) {
  EXPECT_EQ(static_cast<uint64_t>(intOf(R"({"v":18446744073709551615})")), UINT64_MAX);
}

}  // namespace
}  // namespace hvfp
