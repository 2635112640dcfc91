#include "minfw/json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "minfw/log.h"

namespace kel::vxp3::minfw::json {

namespace detail {

// Lets the parser move payloads in and out without copies.
struct Access {
  static std::string& str(JSON& j) { return std::get<std::string>(j.value_); }
  static const std::string& str(const JSON& j) { return std::get<std::string>(j.value_); }
  static JSON::ObjectMap& obj(JSON& j) {
    return *std::get<std::unique_ptr<JSON::ObjectMap>>(j.value_);
  }
  static JSON::ArrayList& arr(JSON& j) {
    return *std::get<std::unique_ptr<JSON::ArrayList>>(j.value_);
  }
};

}  // namespace detail

namespace {

using detail::Access;

// Per-thread parser state: the nesting depth of the arrays/objects being parsed, whether the
// depth limit was hit (the enclosing levels then unwind without logging a cascade of follow-up
// errors), and how many errors were logged (Load's trailing-text warning uses it).
struct ParseState {
  std::size_t depth = 0;
  bool overflow = false;
  std::size_t errors = 0;
};
thread_local ParseState tParse;

class DepthGuard {
 public:
  DepthGuard() {
    if (tParse.depth == 0)
      tParse.overflow = false;
    ++tParse.depth;
  }
  ~DepthGuard() { --tParse.depth; }
  DepthGuard(const DepthGuard&) = delete;
  DepthGuard& operator=(const DepthGuard&) = delete;
  bool tooDeep() const { return tParse.depth > JSON::kMaxDepth; }
};

// Every parse error names the function "parse_null" with the caller's own signature: the log
// location of parser records is therefore the same for all of them, and filters go by the tag.
void logParseError(const std::string& message, const char* prettyFunction, int32_t line) {
  ++tParse.errors;
  Logger::instance().log(message, "json", kError, prettyFunction, "parse_null", line);
}
#define JSON_PARSE_ERROR(...) logParseError(cat(__VA_ARGS__), __PRETTY_FUNCTION__, __LINE__)

// The end of the input reads as a zero character; nothing is ever read past it.
inline char at(const std::string& s, std::size_t i) {
  return i < s.size() ? s[i] : '\0';
}

// isspace of the "C" locale (the service never changes LC_CTYPE), without the library call:
// blank, tab, line feed, vertical tab, form feed, carriage return.
inline bool isSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

inline void skipSpace(const std::string& s, std::size_t& offset) {
  while (offset < s.size() && isSpace(s[offset]))
    ++offset;
}

inline bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

inline bool isHex(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// A number ends at whitespace, ",", "]", "}" or the end of the input.
inline bool endsNumber(const std::string& s, std::size_t i) {
  if (i >= s.size())
    return true;
  const char c = s[i];
  return isSpace(c) || c == ',' || c == ']' || c == '}';
}

// The two escape directions as byte tables: `letter` gives the character written after the
// backslash when dumping (0: copied unchanged), `decoded` the character that an escape letter
// stands for when parsing (0: an unknown escape).
struct EscapeTables {
  char letter[256] = {};
  char decoded[256] = {};
  constexpr EscapeTables() {
    const char plain[] = {'"', '\\', '\b', '\f', '\n', '\r', '\t'};
    const char letters[] = {'"', '\\', 'b', 'f', 'n', 'r', 't'};
    for (std::size_t i = 0; i < sizeof(plain); ++i)
      letter[static_cast<unsigned char>(plain[i])] = letters[i];
    for (std::size_t i = 0; i < sizeof(plain); ++i)
      decoded[static_cast<unsigned char>(letters[i])] = plain[i];
    decoded[static_cast<unsigned char>('/')] = '/';
  }
};
constexpr EscapeTables kEscapes;

}  // namespace

// ---- value --------------------------------------------------------------------------------

JSON::JSON(const JSON& other)
    : value_(std::visit(
          [](const auto& v) -> Value {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::unique_ptr<ObjectMap>> ||
                          std::is_same_v<T, std::unique_ptr<ArrayList>>) {
              return std::make_unique<typename T::element_type>(*v);  // deep copy
            } else {
              return v;
            }
          },
          other.value_)) {}

JSON& JSON::operator=(const JSON& other) {
  if (this != &other) {
    JSON copy(other);
    value_ = std::move(copy.value_);
  }
  return *this;
}

JSON JSON::Make(Class c) {
  JSON j;
  switch (c) {
    case Class::Object:
      j.value_ = std::make_unique<ObjectMap>();
      break;
    case Class::Array:
      j.value_ = std::make_unique<ArrayList>();
      break;
    case Class::String:
      j.value_ = std::string();
      break;
    case Class::Floating:
      j.value_ = 0.0;
      break;
    case Class::Integral:
      j.value_ = int64_t{0};
      break;
    case Class::Boolean:
      j.value_ = false;
      break;
    case Class::Null:
      break;
  }
  return j;
}

JSON JSON::Load(const std::string& text) {
  tParse.errors = 0;
  std::size_t offset = 0;
  JSON result;
  try {
    result = utils::parse_next(text, offset);
  } catch (const std::exception& e) {
    MLOG_ERROR("json", "ERROR: Load: Parse aborted by exception [", e.what(), "]");
    return JSON();
  }
  if (tParse.errors == 0) {
    skipSpace(text, offset);
    if (offset < text.size())
      MLOG_WARN("json", "WARN: Load: Text after the value ignored, offset [", offset, "]");
  }
  return result;
}

JSON& JSON::operator[](const std::string& key) {
  if (JSONType() != Class::Object)
    value_ = std::make_unique<ObjectMap>();
  return Access::obj(*this)[key];
}

JSON& JSON::operator[](std::size_t index) {
  if (JSONType() != Class::Array)
    value_ = std::make_unique<ArrayList>();
  ArrayList& items = Access::arr(*this);
  if (index >= items.size())
    items.resize(index + 1);
  return items[index];
}

const JSON* JSON::find(const std::string& key) const {
  if (JSONType() != Class::Object)
    return nullptr;
  const ObjectMap& members = *std::get<std::unique_ptr<ObjectMap>>(value_);
  const auto it = members.find(key);
  return it == members.end() ? nullptr : &it->second;
}

bool JSON::erase(const std::string& key) {
  if (JSONType() != Class::Object)
    return false;
  return Access::obj(*this).erase(key) > 0;
}

void JSON::append(JSON value) {
  if (JSONType() != Class::Array)
    value_ = std::make_unique<ArrayList>();
  Access::arr(*this).push_back(std::move(value));
}

std::size_t JSON::size() const {
  switch (JSONType()) {
    case Class::Object:
      return std::get<std::unique_ptr<ObjectMap>>(value_)->size();
    case Class::Array:
      return std::get<std::unique_ptr<ArrayList>>(value_)->size();
    default:
      return 0;
  }
}

std::string JSON::ToString() const {
  bool ok = false;
  return ToString(ok);
}

std::string JSON::ToString(bool& ok) const {
  const auto* s = std::get_if<std::string>(&value_);
  ok = s != nullptr;
  return ok ? *s : std::string();
}

int64_t JSON::ToInt() const {
  bool ok = false;
  return ToInt(ok);
}

int64_t JSON::ToInt(bool& ok) const {
  const auto* i = std::get_if<int64_t>(&value_);
  ok = i != nullptr;
  return ok ? *i : 0;
}

double JSON::ToFloat() const {
  bool ok = false;
  return ToFloat(ok);
}

double JSON::ToFloat(bool& ok) const {
  const auto* d = std::get_if<double>(&value_);
  ok = d != nullptr;
  return ok ? *d : 0.0;
}

bool JSON::ToBool() const {
  bool ok = false;
  return ToBool(ok);
}

bool JSON::ToBool(bool& ok) const {
  const auto* b = std::get_if<bool>(&value_);
  ok = b != nullptr;
  return ok ? *b : false;
}

const JSON::ObjectMap& JSON::ObjectRange() const {
  const auto* p = std::get_if<std::unique_ptr<ObjectMap>>(&value_);
  static const ObjectMap empty;
  return p ? **p : empty;
}

const JSON::ArrayList& JSON::ArrayRange() const {
  const auto* p = std::get_if<std::unique_ptr<ArrayList>>(&value_);
  static const ArrayList empty;
  return p ? **p : empty;
}

// ---- serialiser ---------------------------------------------------------------------------

namespace {

// Appends into a string that grows ahead of the writes, so each piece costs one bounds check
// and one copy (std::string::append was the bulk of dumping large documents).
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out), len_(out.size()) {}
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void put(char c) {
    ensure(1);
    out_[len_++] = c;
  }
  void put(const char* p, std::size_t n) {
    ensure(n);
    std::memcpy(out_.data() + len_, p, n);
    len_ += n;
  }
  void put(std::string_view s) { put(s.data(), s.size()); }
  // Cuts the string back to what was written.
  void finish() { out_.resize(len_); }

 private:
  void ensure(std::size_t n) {
    if (out_.size() - len_ < n)
      out_.resize(std::max(out_.size() * 2, len_ + n) + 64);
  }

  std::string& out_;
  std::size_t len_;
};

void putEscaped(Writer& w, const std::string& text) {
  const char* p = text.data();
  const char* const end = p + text.size();
  const char* run = p;
  for (; p != end; ++p) {
    const char letter = kEscapes.letter[static_cast<unsigned char>(*p)];
    if (letter == 0)
      continue;
    w.put(run, static_cast<std::size_t>(p - run));
    w.put('\\');
    w.put(letter);
    run = p + 1;
  }
  w.put(run, static_cast<std::size_t>(end - run));
}

void putFloating(Writer& w, double d) {
  char buf[64];
  const int n = std::snprintf(buf, sizeof(buf), "%f", d);
  if (n < 0)
    return;
  if (static_cast<std::size_t>(n) < sizeof(buf)) {
    w.put(buf, static_cast<std::size_t>(n));
    return;
  }
  // Up to 309 integer digits for the largest doubles.
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), "%f", d);
  w.put(big.data(), static_cast<std::size_t>(n));
}

void putValue(Writer& w, const JSON& value, int depth, const std::string& tab) {
  switch (value.JSONType()) {
    case JSON::Class::Null:
      w.put("null");
      return;
    case JSON::Class::Boolean:
      w.put(value.ToBool() ? "true" : "false");
      return;
    case JSON::Class::Integral: {
      // "%lu": the 64-bit pattern as unsigned, so negatives print as two's complement.
      char buf[24];
      const auto r =
          std::to_chars(buf, buf + sizeof(buf), static_cast<unsigned long>(value.ToInt()));
      w.put(buf, static_cast<std::size_t>(r.ptr - buf));
      return;
    }
    case JSON::Class::Floating:
      putFloating(w, value.ToFloat());
      return;
    case JSON::Class::String:
      w.put('"');
      putEscaped(w, Access::str(value));
      w.put('"');
      return;
    case JSON::Class::Object: {
      std::string pad;
      for (int i = 0; i < depth; ++i)
        pad.append(tab);
      w.put("{\n");
      bool first = true;
      for (const auto& [key, member] : value.ObjectRange()) {
        if (!first)
          w.put(",\n");
        first = false;
        w.put(pad);
        w.put('"');
        w.put(key);  // keys are written as they stand, not escaped
        w.put("\" : ");
        putValue(w, member, depth + 1, tab);
      }
      w.put('\n');
      w.put(std::string_view(pad).substr(std::min<std::size_t>(2, pad.size())));
      w.put('}');
      return;
    }
    case JSON::Class::Array: {
      w.put('[');
      bool first = true;
      for (const JSON& item : value.ArrayRange()) {
        if (!first)
          w.put(", ");
        first = false;
        putValue(w, item, depth + 1, tab);
      }
      w.put(']');
      return;
    }
  }
}

}  // namespace

std::string JSON::dump(int depth, const std::string& tab) const {
  std::string out;
  Writer w(out);
  putValue(w, *this, depth, tab);
  w.finish();
  return out;
}

// ---- parser -------------------------------------------------------------------------------

namespace utils {

JSON parse_next(const std::string& str, std::size_t& offset) {
  skipSpace(str, offset);
  const char c = at(str, offset);
  switch (c) {
    case '"':
      return parse_string(str, offset);
    case '[':
      return parse_array(str, offset);
    case '{':
      return parse_object(str, offset);
    case 't':
    case 'f':
      return parse_bool(str, offset);
    case 'n':
      return parse_null(str, offset);
    default:
      break;
  }
  if (c == '-' || isDigit(c))
    return parse_number(str, offset);
  JSON_PARSE_ERROR("ERROR: Parse: Unknown starting character [", c, "]");
  return JSON();
}

JSON parse_null(const std::string& str, std::size_t& offset) {
  const std::string_view next = std::string_view(str).substr(std::min(offset, str.size()), 4);
  if (next == "null") {
    offset += 4;
    return JSON();
  }
  JSON_PARSE_ERROR("ERROR: Null: Expected 'null', found [", next, "]");
  return JSON();
}

JSON parse_bool(const std::string& str, std::size_t& offset) {
  const std::string_view next = std::string_view(str).substr(std::min(offset, str.size()), 5);
  if (next.substr(0, 4) == "true") {
    offset += 4;
    return JSON(true);
  }
  if (next == "false") {
    offset += 5;
    return JSON(false);
  }
  JSON_PARSE_ERROR("ERROR: Bool: Expected 'true' or 'false', found [", next, "]");
  return JSON();
}

JSON parse_number(const std::string& str, std::size_t& offset) {
  std::size_t i = std::min(offset, str.size());
  const std::size_t start = i;
  bool floating = false;
  for (; i < str.size(); ++i) {
    const char c = str[i];
    if (c == '.')
      floating = true;
    else if (c != '-' && !isDigit(c))
      break;
  }
  const std::string text = str.substr(start, i - start);

  long exponent = 0;
  bool hasExponent = false;
  const char c = at(str, i);
  if (c == 'e' || c == 'E') {
    hasExponent = true;
    ++i;
    const std::size_t expStart = i;
    if (at(str, i) == '-')
      ++i;
    while (i < str.size() && isDigit(str[i]))
      ++i;
    if (!endsNumber(str, i)) {
      offset = i;
      JSON_PARSE_ERROR("ERROR: Number: Expected a number for exponent, found [", str[i], "]");
      return JSON();
    }
    exponent = std::stol(str.substr(expStart, i - expStart));
  } else if (!endsNumber(str, i)) {
    offset = i;
    JSON_PARSE_ERROR("ERROR: Number: unexpected character [", c, "]");
    return JSON();
  }
  offset = i;

  if (floating || hasExponent) {
    const double mantissa =
        floating ? std::stod(text) : static_cast<double>(std::stol(text, nullptr, 10));
    const double value = mantissa * std::pow(10.0, static_cast<double>(exponent));
    // An exponent beyond the double range gives inf or nan, which would dump as text that no
    // reader takes back.
    if (!std::isfinite(value)) {
      JSON_PARSE_ERROR("ERROR: Number: out of range [", str.substr(start, i - start), "]");
      return JSON();
    }
    return JSON(value);
  }
  return JSON(static_cast<int64_t>(std::stol(text, nullptr, 10)));
}

JSON parse_string(const std::string& str, std::size_t& offset) {
  JSON result(std::string{});
  std::string& out = Access::str(result);
  const std::size_t size = str.size();
  std::size_t i = std::min(offset + 1, size);  // past the opening quote
  while (true) {
    // Copy the plain run up to the next quote or backslash in one piece.
    std::size_t run = i;
    while (run < size && str[run] != '"' && str[run] != '\\')
      ++run;
    out.append(str, i, run - i);
    i = run;
    if (i >= size) {
      offset = size;
      JSON_PARSE_ERROR("ERROR: String: Expected closing quote, found end of input");
      return JSON(std::string{});
    }
    if (str[i] == '"') {
      offset = i + 1;
      return result;
    }
    // Backslash: decide by the escaped character.
    const char e = at(str, i + 1);
    if (e == 'u') {
      // Kept as text, not decoded; only the four digits are checked.
      for (std::size_t k = i + 2; k < i + 6; ++k) {
        const char h = at(str, k);
        if (!isHex(h)) {
          offset = std::min(k, size);
          JSON_PARSE_ERROR("ERROR: String: Expected hex character in unicode escape, found [", h,
                           "]");
          return JSON(std::string{});
        }
      }
      out.append(str, i, 6);
      i += 6;
      continue;
    }
    const char decoded = kEscapes.decoded[static_cast<unsigned char>(e)];
    // An unknown escape gives one backslash and drops the escaped character (so an escaped
    // backslash reads as one backslash, and backslash-x as a lone backslash).
    out.push_back(decoded != 0 ? decoded : '\\');
    i = std::min(i + 2, size);
  }
}

JSON parse_array(const std::string& str, std::size_t& offset) {
  DepthGuard guard;
  if (guard.tooDeep()) {
    tParse.overflow = true;
    JSON_PARSE_ERROR("ERROR: Parse: Nesting deeper than ", JSON::kMaxDepth, " levels");
    return JSON();
  }
  JSON result = JSON::Make(JSON::Class::Array);
  JSON::ArrayList& items = Access::arr(result);
  if (offset < str.size())
    ++offset;
  skipSpace(str, offset);
  if (at(str, offset) == ']') {
    ++offset;
    return result;
  }
  while (true) {
    items.push_back(parse_next(str, offset));
    if (tParse.overflow)
      return JSON::Make(JSON::Class::Array);
    skipSpace(str, offset);
    const char c = at(str, offset);
    if (c == ',') {
      ++offset;
    } else if (c == ']') {
      ++offset;
      return result;
    } else {
      JSON_PARSE_ERROR("ERROR: Array: Expected ',' or ']', found [", c, "]");
      return JSON::Make(JSON::Class::Array);
    }
  }
}

JSON parse_object(const std::string& str, std::size_t& offset) {
  DepthGuard guard;
  if (guard.tooDeep()) {
    tParse.overflow = true;
    JSON_PARSE_ERROR("ERROR: Parse: Nesting deeper than ", JSON::kMaxDepth, " levels");
    return JSON();
  }
  JSON result = JSON::Make(JSON::Class::Object);
  JSON::ObjectMap& members = Access::obj(result);
  if (offset < str.size())
    ++offset;
  skipSpace(str, offset);
  if (at(str, offset) == '}') {
    ++offset;
    return result;
  }
  while (true) {
    JSON key = parse_next(str, offset);
    if (tParse.overflow)
      return result;
    skipSpace(str, offset);
    char c = at(str, offset);
    if (c != ':') {
      JSON_PARSE_ERROR("Error: Object: Expected colon, found [", c, "]");
      return result;
    }
    ++offset;
    skipSpace(str, offset);
    JSON value = parse_next(str, offset);
    if (tParse.overflow)
      return result;
    // The key's text value names the member (empty for a non-string key); the last of
    // repeated keys wins.
    std::string name =
        key.JSONType() == JSON::Class::String ? std::move(Access::str(key)) : std::string();
    members.insert_or_assign(std::move(name), std::move(value));
    skipSpace(str, offset);
    c = at(str, offset);
    if (c == ',') {
      ++offset;
    } else if (c == '}') {
      ++offset;
      return result;
    } else {
      JSON_PARSE_ERROR("ERROR: Object: Expected comma, found [", c, "]");
      return result;
    }
  }
}

}  // namespace utils

}  // namespace kel::vxp3::minfw::json
