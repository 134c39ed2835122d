#include "sectiondocument.h"

#include <gmock/gmock.h>

#include <random>

#include "strictjson.h"

namespace {

/// What a text means: its members, or what is wrong with it.
template <typename Read>
std::string Meaning(Read read) {
  try {
    return read().toStyledString();
  } catch (const std::exception& e) {
    return std::string("error: ") + e.what();
  }
}

/// The members of a section, one by one, as its users get them.
Json::Value Members(const CSectionDocument& document, const Json::Value& expected) {
  Json::Value members(Json::objectValue);
  for (const auto& key : expected.getMemberNames()) {
    members[key] = document.Get(key, "missing");
    Json::Value elements(expected[key].isArray() ? Json::arrayValue : Json::nullValue);
    const bool visited = document.ForEachElement(key, [&](const Json::Value& e) { elements.append(e); });
    EXPECT_EQ(visited, expected[key].isArray());
    EXPECT_EQ(elements, visited ? expected[key] : Json::Value());
    EXPECT_EQ(document.Find(key)->type(), expected[key].type());
  }
  return members;
}

void ExpectTheSameAsWholeDocument(const std::string& text) {
  SCOPED_TRACE(text);
  const auto whole = Meaning([&] { return ParseStrictJson(text); });
  EXPECT_EQ(Meaning([&] { return CSectionDocument(text).All(); }), whole);
  EXPECT_EQ(Meaning([&] { return Members(CSectionDocument(text), ParseStrictJson(text)); }), whole);
}

}  // namespace

TEST(SectionDocument, ReadsWhatTheParserOfWholeDocumentsReads) {
  for (const std::string text : {
           R"({})",
           R"({"a": []})",
           "\n{ \"a\" : [\t\r\n ] , \"b\": [ 1 , 2 ] }\n",
           R"({"a": [[1, [2]], {"b": [3]}, "]", "\"]", "\\"], "c": {"a": [4]}, "d": null, "e": "[1]"})",
           R"({"\u0061]": [true], "\"[": [false, null, -1.5e3, "\u0000"]})",
           R"({"a": [1,]})",
           R"({"a": [,1]})",
           R"({"a": [,]})",
           R"({"a": [1 2]})",
           R"({"a": [1}})",
           R"({"a": [1)",
           R"({"a": [")",
           R"({"a": ["\)",
           R"({"a": [1], "a": [2]})",
           R"({"a": 1, "\u0061": [2]})",
           R"({"a": [{"b": 1, "b": 2}]})",
           R"({"a": [007]})",
           R"({"a": [1] [2]})",
           R"({[1]: 2})",
           R"({"a": [/**/]})",
           R"([{"a": 1}, [2]])",
           R"(}[1])",
           "{\"a\": [\"\xEF\xBB\xBF\", \xEF\xBB\xBF 1]}",
       }) {
    ExpectTheSameAsWholeDocument(text);
  }
  ExpectTheSameAsWholeDocument(std::string("{\"a\": [1\0, 2]}", 14));
  for (const std::size_t depth : {61U, 62U, 63U, 64U, 65U}) {
    ExpectTheSameAsWholeDocument("{\"a\": " + std::string(depth, '[') + std::string(depth, ']') + "}");
  }
}

TEST(SectionDocument, ReadsRandomTextsAsTheParserOfWholeDocumentsDoes) {
  static const std::string seeds[] = {
      R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}, {"Name": "x,]}"}, [1, 2], null], "On": true})",
      R"({"a": [], "b": {"c": [{"d": [1.5, "\u00e9\\"]}]}, "e": [[], [[]], {}], "f": "\""})",
  };
  static const std::string pieces[] = {"[",  "]", "{", "}",    ",",     ":",          "\"",
                                       "\\", " ", "1", "null", "\"a\"", "\"a\": [1],"};
  std::mt19937 random(1);
  int accepted = 0;
  for (int i = 0; i < 8000; ++i) {
    std::string text = seeds[random() % std::size(seeds)];
    for (auto changes = random() % 4; changes > 0; --changes) {
      const auto at = random() % text.size();
      switch (random() % 3) {
        case 0:
          text.erase(at, 1 + random() % 3);
          break;
        case 1:
          text.insert(at, pieces[random() % std::size(pieces)]);
          break;
        case 2:
          text.insert(at, text.substr(random() % text.size(), random() % 12));
          break;
      }
    }
    ExpectTheSameAsWholeDocument(text);
    accepted += Meaning([&] { return ParseStrictJson(text); }).starts_with("error") ? 0 : 1;
    if (testing::Test::HasFailure()) {
      return;
    }
  }
  EXPECT_GT(accepted, 400);
}
