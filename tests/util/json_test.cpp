#include "util/json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace qm {
namespace {

const json kRecord = {{"text", "t"},     {"flag", true},         {"number", -7},
                      {"float", 1.5},    {"object", {{"a", 1}}}, {"array", json::array({1, 2})},
                      {"null", nullptr}, {"huge", UINT64_MAX},   {"most", INT64_MAX}};

std::string nested(int depth) {
    return std::string(static_cast<std::size_t>(depth), '[') + std::string(static_cast<std::size_t>(depth), ']');
}

TEST(DumpJson, ReplacesBytesThatAreNoUtf8) {
    EXPECT_EQ(dumpJson({{"a\xFF", "b\xC3"}}), "{\"a\xEF\xBF\xBD\":\"b\xEF\xBF\xBD\"}");
    EXPECT_EQ(dumpJsonPretty(json::array({"\xED\xA0\x80"})).find('\xED'), std::string::npos);
}

TEST(DumpJson, SortsKeysAndKeepsOtherCharactersAsTheyAre) {
    EXPECT_EQ(dumpJson({{"b", 1}, {"a", "\xE6\x96\x87"}}), "{\"a\":\"\xE6\x96\x87\",\"b\":1}");
}

TEST(DumpJson, PrettyTextIsIndentedByTwoSpaces) {
    EXPECT_EQ(dumpJsonPretty({{"a", {{"b", 1}}}}), "{\n  \"a\": {\n    \"b\": 1\n  }\n}");
}

TEST(ParseJson, GivesTheValue) {
    EXPECT_EQ(parseJson(R"({"a":[1,"[["]})"), (json{{"a", {1, "[["}}}));
}

TEST(ParseJson, ThrowsForWhatIsNoJson) {
    for (const std::string text : {"", "{", "nul", "{\"a\":1}x", "\"\xFF\"", "]"}) {
        EXPECT_THROW(parseJson(text), json::parse_error) << text;
    }
}

TEST(ParseJson, ThrowsForANulWhereverItStands) {
    for (const std::string_view text :
         {std::string_view("\0", 1), std::string_view("{}\0", 3), std::string_view("{}\0garbage", 10),
          std::string_view("\0{}", 3), std::string_view("{\"a\":\"\0\"}", 9), std::string_view("[1,\0 2]", 7)}) {
        EXPECT_THROW(parseJson(text), json::parse_error) << text;
    }
    EXPECT_EQ(parseJson(R"("\u0000")"), std::string(1, '\0')) << "an escaped one is a character like any other";
}

TEST(ParseJson, TakesNestingUpToTheLimit) {
    EXPECT_TRUE(parseJson(nested(kMaxJsonDepth)).is_array());
    EXPECT_THROW(parseJson(nested(kMaxJsonDepth + 1)), std::invalid_argument);
    EXPECT_THROW(parseJson(nested(1000000)), std::invalid_argument);
}

TEST(ParseJson, CountsNoBracketsInStrings) {
    const std::string brackets(std::size_t{2} * kMaxJsonDepth, '[');
    EXPECT_EQ(parseJson("\"" + brackets + "\""), brackets);
    EXPECT_EQ(parseJson("\"\\\"" + brackets + "\""), "\"" + brackets);
    EXPECT_THROW(parseJson("[\"\\\\\"," + nested(kMaxJsonDepth) + "]"), std::invalid_argument);
}

TEST(NestsDeeperThan, CountsBracketsOutsideStrings) {
    EXPECT_FALSE(nestsDeeperThan("7", 0));
    EXPECT_FALSE(nestsDeeperThan(R"({"a":[1],"b":[2]})", 2));
    EXPECT_TRUE(nestsDeeperThan(R"({"a":[1],"b":[2]})", 1));
    EXPECT_FALSE(nestsDeeperThan(R"(["\"[[[",{"{{":0}])", 2));
    EXPECT_FALSE(nestsDeeperThan("]]][", 1));
}

TEST(JsonMembers, AMemberIsFoundInAnObjectOnly) {
    EXPECT_EQ(findMember(kRecord, "text"), &kRecord.at("text"));
    EXPECT_EQ(findMember(kRecord, "missing"), nullptr);
    EXPECT_EQ(findMember(json::array({"text"}), "text"), nullptr);
    EXPECT_EQ(findMember(json(), "text"), nullptr);
    EXPECT_EQ(findMember(json("text"), "text"), nullptr);
}

TEST(JsonMembers, AMemberOfTheTypeIsRead) {
    EXPECT_EQ(stringMember(kRecord, "text"), "t");
    EXPECT_TRUE(boolMember(kRecord, "flag", false));
    EXPECT_EQ(integerMember(kRecord, "number", 0), -7);
    EXPECT_EQ(integerMember(kRecord, "most", 0), INT64_MAX);
    EXPECT_EQ(objectMember(kRecord, "object"), (json{{"a", 1}}));
    EXPECT_EQ(arrayMember(kRecord, "array"), json::array({1, 2}));
}

TEST(JsonMembers, AMemberOfAnotherTypeReadsAsTheFallback) {
    for (const auto& [key, value] : kRecord.items()) {
        if (!value.is_string()) {
            EXPECT_EQ(stringMember(kRecord, key, "f"), "f") << key;
        }
        if (!value.is_boolean()) {
            EXPECT_TRUE(boolMember(kRecord, key, true)) << key;
        }
        if (key != "number" && key != "most") {
            EXPECT_EQ(integerMember(kRecord, key, 5), 5) << key;
        }
        if (!value.is_object()) {
            EXPECT_EQ(objectMember(kRecord, key), json::object()) << key;
        }
        if (!value.is_array()) {
            EXPECT_EQ(arrayMember(kRecord, key), json::array()) << key;
        }
    }
}

TEST(JsonMembers, AMissingMemberReadsAsTheFallback) {
    for (const json& record : {json::object(), json(), json::array(), json("text")}) {
        EXPECT_EQ(stringMember(record, "k"), "");
        EXPECT_EQ(stringMember(record, "k", "f"), "f");
        EXPECT_FALSE(boolMember(record, "k", false));
        EXPECT_EQ(integerMember(record, "k", 5), 5);
        EXPECT_EQ(objectMember(record, "k"), json::object());
        EXPECT_EQ(arrayMember(record, "k"), json::array());
    }
}

}  // namespace
}  // namespace qm
