#pragma once
// JSON: the one document type of the service (persistent record, update-medium description,
// key-manifest header and payload, laptop replies).
//
// A small dynamically typed value. Objects keep their members sorted by key (byte order) and
// unique, so serialisation always lists them alphabetically; arrays keep their order. Copying
// is deep. A default-constructed value is Null.
//
// Parsing is lenient and never throws for bad syntax: every fault is logged at error level
// with the tag "json" and the faulty part becomes an empty value (Null, an empty Array or
// String, or an Object holding the members read before the fault). The end of the input reads
// as a zero character, so truncated input ends in one of those messages. Nesting deeper than
// kMaxDepth arrays/objects is refused with one error record and yields Null at that level.
// Number conversion (stol/stod) of over-long numbers may throw from the parse_* functions;
// Load() catches that. A number whose exponent takes it beyond the double range is an error
// ("ERROR: Number: out of range [...]") and reads as Null.
//
// dump(depth, tab) pretty-prints objects one member per line, arrays on one line. Integral
// prints as the unsigned 64-bit value ("%lu"), Floating with "%f".
//
// Threading: a value is owned by one thread at a time; distinct values may be used from
// different threads concurrently (the parser keeps its nesting count per thread).

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

namespace kel::vxp3::minfw::json {

class JSON;

namespace detail {
struct Access;
}

class JSON {
 public:
  enum class Class {
    Null = 0,
    Object = 1,
    Array = 2,
    String = 3,
    Floating = 4,
    Integral = 5,
    Boolean = 6
  };

  using ObjectMap = std::map<std::string, JSON>;
  using ArrayList = std::deque<JSON>;

  // Arrays and objects nested deeper than this are refused by the parser.
  static constexpr std::size_t kMaxDepth = 512;

  JSON() = default;
  JSON(std::nullptr_t) {}
  JSON(const char* s) : value_(std::string(s ? s : "")) {}
  JSON(std::string s) : value_(std::move(s)) {}
  JSON(bool b) : value_(b) {}
  template <typename T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                             !std::is_same_v<T, char>,
                                         int> = 0>
  JSON(T i) : value_(static_cast<int64_t>(i)) {}
  JSON(double d) : value_(d) {}

  JSON(const JSON& other);
  JSON(JSON&& other) noexcept = default;
  JSON& operator=(const JSON& other);
  JSON& operator=(JSON&& other) noexcept = default;
  ~JSON() = default;

  // An empty value of class c (empty Object, empty Array, "", 0.0, 0, false or Null).
  static JSON Make(Class c);

  // Parses a whole document (parse_next at position 0). Bad syntax was logged by the parser and
  // gives its partial result; a conversion error of an over-long number is logged and gives
  // Null. Text after the first value is ignored; when the value itself parsed cleanly, a
  // warning names the offset of that text.
  static JSON Load(const std::string& text);

  Class JSONType() const { return static_cast<Class>(value_.index()); }
  bool IsNull() const { return JSONType() == Class::Null; }

  // Member access; a value of any other class than Object is replaced by an empty Object
  // first. An absent key is inserted as Null.
  JSON& operator[](const std::string& key);
  // Element access; a value of any other class than Array is replaced by an empty Array
  // first, and the array grows with Nulls up to index.
  JSON& operator[](std::size_t index);

  // The member `key` (exact match); nullptr if this is not an Object or the key is absent.
  const JSON* find(const std::string& key) const;
  bool hasKey(const std::string& key) const { return find(key) != nullptr; }
  // Removes an Object member; false if absent or not an Object.
  bool erase(const std::string& key);
  // Appends an element; a value of any other class than Array is replaced by an empty Array
  // first.
  void append(JSON value);
  // Members of an Object, elements of an Array, otherwise 0.
  std::size_t size() const;

  // Typed reads. Only the matching class sets ok to true; any other class gives the empty or
  // zero value ("", 0, 0.0, false).
  std::string ToString() const;
  std::string ToString(bool& ok) const;
  int64_t ToInt() const;
  int64_t ToInt(bool& ok) const;
  double ToFloat() const;
  double ToFloat(bool& ok) const;
  bool ToBool() const;
  bool ToBool(bool& ok) const;

  // The members / elements; an empty container when the class does not match.
  const ObjectMap& ObjectRange() const;
  const ArrayList& ArrayRange() const;

  // The text of the value. `tab` is the indentation unit and depth the nesting level; whole
  // documents are dumped with depth 1 and tab "  ".
  std::string dump(int depth = 1, const std::string& tab = "  ") const;

 private:
  friend struct detail::Access;

  // Alternatives in the order of Class, so index() is the class tag. Containers live on the
  // heap so that the type is complete where std::map/std::deque need it.
  using Value = std::variant<std::monostate, std::unique_ptr<ObjectMap>, std::unique_ptr<ArrayList>,
                             std::string, double, int64_t, bool>;
  Value value_;
};

namespace utils {

// Each reads `str` from `offset` and leaves `offset` after what it consumed (numbers: on their
// terminating character; errors: on the offending character). parse_next skips leading
// whitespace and dispatches on the first character; the others expect to start on their own
// first character.
JSON parse_next(const std::string& str, std::size_t& offset);
JSON parse_null(const std::string& str, std::size_t& offset);
JSON parse_bool(const std::string& str, std::size_t& offset);
JSON parse_number(const std::string& str, std::size_t& offset);
JSON parse_string(const std::string& str, std::size_t& offset);
JSON parse_array(const std::string& str, std::size_t& offset);
JSON parse_object(const std::string& str, std::size_t& offset);

}  // namespace utils

}  // namespace kel::vxp3::minfw::json
