#include "minfw/json.h"

#include <gtest/gtest.h>

#include <exception>
#include <initializer_list>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "minfw/testing/capture_sink.h"

namespace kel::vxp3::minfw::json {
namespace {

using testing::ScopedLogCapture;

// The end of the input as the parser reports it inside a message.
const std::string kEnd(1, '\0');

// Every record's message, joined by " | "; with `errorsOnly` only those of level error and up.
// Every record carries the tag "json"; parse errors all name the function parse_null.
std::string logOf(ScopedLogCapture& cap, bool errorsOnly = false) {
  const std::regex parseError(R"(^( kel::vxp3::minfw::json::utils|Unknown)::parse_null\(\d+\)$)");
  std::string out;
  for (const testing::LogRecord& r : cap->records()) {
    EXPECT_EQ(r.tag, "json");
    if (r.message.find(": Load:") == std::string::npos) {
      EXPECT_TRUE(std::regex_match(r.location, parseError)) << r.location;
    }
    if (!errorsOnly || r.level >= kError)
      out += (out.empty() ? "" : " | ") + r.message;
  }
  return out;
}

// A copy whose buffer ends exactly at the terminator, so a read past it hits ASan's redzone.
std::string exact(const std::string& text) {
  return std::string(text.begin(), text.end());
}

// parse_next on one value: its result (the dump tells its class), where it stops, what it reports.
TEST(JsonParse, ValuesAdvanceAndReportAsDocumented) {
  // proves, input, dump, offset after, errors
  using Case = std::tuple<const char*, std::string, std::string, std::size_t, std::string>;
  const std::vector<Case> cases = {
      {"null advances four", "null,", "null", 4, ""},
      {"nul is the Null error with what was read", "nul", "null", 0,
       "ERROR: Null: Expected 'null', found [nul]"},
      {"tru is the Bool error", "tru", "null", 0,
       "ERROR: Bool: Expected 'true' or 'false', found [tru]"},
      {"false advances five", "false,", "false", 5, ""},
      {"true advances four", "true]", "true", 4, ""},
      {"leading whitespace is skipped", " \t\n\r\v\ftrue", "true", 10, ""},
      {"-12 is Integral", "-12", "18446744073709551604", 3, ""},
      {"2e3 is Floating 2000", "2e3", "2000.000000", 3, ""},
      {"negative exponent on a fraction", "25.0E-2 ", "0.250000", 7, ""},
      {"a number stops on its terminator", "12]", "12", 2, ""},
      {"1.5x reports the x", "1.5x", "null", 3, "ERROR: Number: unexpected character [x]"},
      {"an exponent sign + is not a digit", "2e+3", "null", 2,
       "ERROR: Number: Expected a number for exponent, found [+]"},
      {"the end of the input is an unknown start", "", "null", 0,
       "ERROR: Parse: Unknown starting character [" + kEnd + "]"},
      {"a stray character is an unknown start", "  @", "null", 2,
       "ERROR: Parse: Unknown starting character [@]"},
      {"plain text up to the closing quote", R"("abc" x)", R"("abc")", 5, ""},
      {"the seven short escapes", R"("q\"s\/b\bf\fn\nr\rt\t")", R"("q\"s/b\bf\fn\nr\rt\t")", 23,
       ""},
      {"\\u is kept literally, upper-case hex too", R"("\u00eFx")", R"("\\u00eFx")", 9, ""},
      {"\\u with a non-hex digit is an error", R"("\u00g9")", R"("")", 5,
       "ERROR: String: Expected hex character in unicode escape, found [g]"},
      {"\\u cut by the end of input", R"("\u00)", R"("")", 5,
       "ERROR: String: Expected hex character in unicode escape, found [" + kEnd + "]"},
      {"an escaped backslash is one backslash", R"("a\\b")", R"("a\\b")", 6, ""},
      {"an unknown escape drops the character", R"("a\xb")", R"("a\\b")", 6, ""},
      {"raw control characters and bytes pass through", "\"\x01\xff\ttab\"", "\"\x01\xff\\ttab\"",
       8, ""},
      {"an unterminated string is an error", R"("abc)", R"("")", 4,
       "ERROR: String: Expected closing quote, found end of input"},
      {"a backslash at the very end is an unterminated string", R"("ab\)", R"("")", 4,
       "ERROR: String: Expected closing quote, found end of input"},
  };
  for (const auto& [proves, input, dump, end, errors] : cases) {
    SCOPED_TRACE(proves);
    ScopedLogCapture cap;
    std::size_t offset = 0;
    EXPECT_EQ(utils::parse_next(exact(input), offset).dump(), dump);
    EXPECT_EQ(offset, end);
    EXPECT_EQ(logOf(cap, true), errors);
  }
}

TEST(JsonParse, DocumentsTheirPartialResultsAndTrailingText) {
  // proves, input, dump, log
  const std::vector<std::tuple<const char*, std::string, std::string, std::string>> cases = {
      {"nested arrays and objects", R"( [1, "a", [true, null], {"k": -0.5}] )",
       "[1, \"a\", [true, null], {\n    \"k\" : -0.500000\n  }]", ""},
      {"members come out in key order", R"({"b": 1, "a": 2})", "{\n  \"a\" : 2,\n  \"b\" : 1\n}",
       ""},
      {"the last of repeated keys wins", R"({"a": 1, "a": 2})", "{\n  \"a\" : 2\n}", ""},
      {"a non-string key names the empty member", R"({null: 2})", "{\n  \"\" : 2\n}", ""},
      {"empty containers", R"({"a": [], "b": {}})", "{\n  \"a\" : [],\n  \"b\" : {\n\n  }\n}", ""},
      {"a trailing comma in an array appends Null", "[1,]", "[1, null]",
       "ERROR: Parse: Unknown starting character []]"},
      {"a missing comma empties the array", "[1 2]", "[]",
       "ERROR: Array: Expected ',' or ']', found [2]"},
      {"a truncated array is empty", "[1", "[]",
       "ERROR: Array: Expected ',' or ']', found [" + kEnd + "]"},
      {"a missing colon keeps the members before it", R"({"a": 1, "b" 2})", "{\n  \"a\" : 1\n}",
       "Error: Object: Expected colon, found [2]"},
      {"a missing comma keeps the member before it", R"({"a": 1 "b": 2})", "{\n  \"a\" : 1\n}",
       "ERROR: Object: Expected comma, found [\"]"},
      {"a truncated object keeps what was read", R"({"a": {"b": tru)",
       "{\n  \"a\" : {\n    \"b\" : null\n  }\n}",
       "ERROR: Bool: Expected 'true' or 'false', found [tru] | ERROR: Object: Expected comma, "
       "found [t] | ERROR: Object: Expected comma, found [t]"},
      {"a fault deep inside an array cascades outward", "[[1.5x]]", "[]",
       "ERROR: Number: unexpected character [x] | ERROR: Array: Expected ',' or ']', found [x] | "
       "ERROR: Array: Expected ',' or ']', found [x]"},
      {"an over-long integer is caught by Load", "[99999999999999999999]", "null",
       "ERROR: Load: Parse aborted by exception [stol]"},
      {"trailing whitespace is fine", " {} \n\t", "{\n\n}", ""},
      {"trailing text after a clean value is named", "true x", "true",
       "WARN: Load: Text after the value ignored, offset [5]"},
      {"a second value is ignored with a warning", "[1][2]", "[1]",
       "WARN: Load: Text after the value ignored, offset [3]"},
      {"no warning on top of an error", "[1 2] x", "[]",
       "ERROR: Array: Expected ',' or ']', found [2]"},
  };
  for (const auto& [proves, input, dump, log] : cases) {
    SCOPED_TRACE(proves);
    ScopedLogCapture cap;
    EXPECT_EQ(JSON::Load(exact(input)).dump(), dump);
    EXPECT_EQ(logOf(cap), log);
  }
}

// Each input is reported and parse_next stays inside it (ASan watches the reads).
void expectReported(const std::string& input) {
  SCOPED_TRACE(input);
  ScopedLogCapture cap;
  std::size_t offset = 0;
  try {
    utils::parse_next(exact(input), offset);
  } catch (const std::exception&) {  // over-long numbers may throw
  }
  EXPECT_LE(offset, input.size());
  cap->clear();
  JSON::Load(exact(input));
  EXPECT_FALSE(cap->records().empty());
}

TEST(JsonRobustness, EveryPrefixOfValidDocumentsAndEveryBadDocumentIsReported) {
  const std::vector<std::string> documents = {
      R"({"channel": 1, "updatetype": 4, "trainname": "T\"1\\x", "progress": 100,
          "timestamps": {"start-date": "01.02.2024", "start-time": "10:11:12"}})",
      R"([1, -2.5e-3, 3E2, true, false, null, "\u00e9\n", [], {}, [[{"a": [1, {"b": null}]}]]])",
  };
  for (const std::string& doc : documents) {
    // Every document here is a container, so each cut is reported.
    for (std::size_t n = 0; n < doc.size(); ++n)
      expectReported(doc.substr(0, n));
    ScopedLogCapture cap;
    JSON::Load(doc);
    EXPECT_TRUE(cap->records().empty()) << cap->messages().front();
  }
  for (const char* bad :
       {"]", "}", "{,}", ":", "{\"a", "{\"a\":", "{\"a\":,}", "[[[", "0x1F", "--1", "1e", "[1e-]",
        "\xff\xfe", "['a']", "[1] // x", "[\"abc", "[\"\\u12", "{a: 1}", "[NaN]"})
    expectReported(bad);
  expectReported("[1e99999999999999999999]");
  expectReported("[0." + std::string(400, '0') + "1]");  // the fraction underflows
  expectReported(std::string("[1,\0 2]", 7));
}

TEST(JsonRobustness, NestingIsLimited) {
  const std::size_t limit = JSON::kMaxDepth;
  // proves, opening and closing text of one level, levels, refused
  const std::vector<std::tuple<const char*, std::string, std::string, std::size_t, bool>> cases = {
      {"arrays at the limit parse", "[", "]", limit, false},
      {"arrays one beyond the limit are refused", "[", "]", limit + 1, true},
      {"objects at the limit parse", R"({"a":)", "}", limit, false},
      {"objects beyond the limit are refused", R"({"a":)", "}", limit + 1, true},
      {"very deep unterminated arrays", "[", "", 100000, true},
      {"very deep unterminated objects", R"({"":)", "", 100000, true},
      {"alternating arrays and objects", R"([{"":)", "", 50000, true},
  };
  for (const auto& [proves, open, close, levels, refused] : cases) {
    SCOPED_TRACE(proves);
    std::string doc;
    for (std::size_t i = 0; i < levels; ++i)
      doc += open;
    doc += "1";
    for (std::size_t i = 0; i < levels && !close.empty(); ++i)
      doc += close;
    ScopedLogCapture cap;
    const JSON value = JSON::Load(doc);
    if (refused) {
      // One record, not one per enclosing level.
      EXPECT_EQ(cap->messages(), std::vector<std::string>{"ERROR: Parse: Nesting deeper than " +
                                                          std::to_string(limit) + " levels"});
    } else {
      EXPECT_TRUE(cap->records().empty());
      EXPECT_EQ(JSON::Load(value.dump()).dump(), value.dump());
    }
    // The refusal does not leak into the next document parsed on this thread.
    cap->clear();
    EXPECT_EQ(JSON::Load("[[1]]").dump(), "[[1]]");
    EXPECT_TRUE(cap->records().empty());
  }
}

// Builders that insert in the order given (the dump must still sort).
JSON object(std::initializer_list<std::pair<const char*, JSON>> members) {
  JSON j = JSON::Make(JSON::Class::Object);
  for (const auto& [key, value] : members)
    j[key] = value;
  return j;
}

JSON array(std::initializer_list<JSON> items) {
  JSON j = JSON::Make(JSON::Class::Array);
  for (const JSON& item : items)
    j.append(item);
  return j;
}

TEST(JsonDump, TextsAsDocumented) {
  const std::vector<std::tuple<const char*, JSON, std::string>> cases = {
      {"Floating has six decimals and no exponent", JSON(1e20), "100000000000000000000.000000"},
      {"a double too long for the print buffer prints in full", JSON(1e60),
       "999999999999999949387135297074018866963645011013410073083904.000000"},
      {"small Floating rounds to zero", JSON(1e-9), "0.000000"},
      {"seven characters are escaped, slash and controls are not", JSON("\"\\\b\f\n\r\t/\x01"),
       "\"\\\"\\\\\\b\\f\\n\\r\\t/\x01\""},
      {"keys are not escaped", object({{"a\"b", true}}), "{\n  \"a\"b\" : true\n}"},
      {"arrays stay on one line, objects inside them indent deeper",
       array({nullptr, JSON::Make(JSON::Class::Array), object({{"x", false}})}),
       "[null, [], {\n    \"x\" : false\n  }]"},
  };
  for (const auto& [proves, value, text] : cases)
    EXPECT_EQ(value.dump(), text) << proves;
  const JSON member = object({{"b", "v"}, {"a", 1}});
  EXPECT_EQ(member.dump(1, "\t"), "{\n\t\"a\" : 1,\n\t\"b\" : \"v\"\n}")
      << "a pad shorter than two characters closes at the margin";
  EXPECT_EQ(member.dump(0), "{\n\"a\" : 1,\n\"b\" : \"v\"\n}") << "depth 0 indents not at all";
}

TEST(JsonValue, ContainersConvertGrowAndCopyDeeply) {
  JSON record = JSON("not an object");
  record["timestamps"]["start-date"] = "01.01.2024";  // a String becomes an Object
  record["progress"] = 50u;
  JSON copy = record;
  copy["timestamps"]["start-date"] = "changed";
  EXPECT_TRUE(copy.erase("progress"));
  EXPECT_FALSE(copy.erase("progress"));
  EXPECT_EQ(
      record.dump(),
      "{\n  \"progress\" : 50,\n  \"timestamps\" : {\n    \"start-date\" : \"01.01.2024\"\n  }\n}")
      << "the copy was deep";
  ASSERT_NE(record.find("progress"), nullptr);
  EXPECT_EQ(record.find("progress")->ToInt(), 50);
  EXPECT_EQ(record.find("Progress"), nullptr) << "exact keys";
  JSON list = 5;
  list[2] = "c";  // an Integral becomes an Array padded with Nulls
  list.append(int64_t{-3});
  JSON assigned;
  assigned = list;
  list[0] = true;
  const JSON& self = assigned;
  assigned = self;
  EXPECT_EQ(assigned.dump(), "[null, null, \"c\", 18446744073709551613]");
  EXPECT_EQ(assigned.ArrayRange().back().ToInt(), -3);
}

}  // namespace
}  // namespace kel::vxp3::minfw::json
