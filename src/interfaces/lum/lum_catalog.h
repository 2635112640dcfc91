#pragma once
// The names under which both versions of the LUM control interface appear in the host
// configuration: the interface entries and, per version, the names of every method, event and
// field descriptor in interface order. Bindings look their identifiers up under these names;
// the list is derived from the descriptors, so a descriptor cannot be forgotten here.
//
// Threading: pure functions; thread-safe.

#include <string>
#include <tuple>
#include <vector>

namespace orv::lum {

inline constexpr const char* kInterfaceV11 = "DiagLocalUpdateManagerControl_v11";
inline constexpr const char* kInterfaceV12 = "DiagLocalUpdateManagerControl_v12";

struct MemberNames {
  std::vector<std::string> methods;  // in interface order (method id 1, 2, ...)
  std::vector<std::string> events;   // in interface order (event id 0x8001, 0x8002, ...)
  std::vector<std::string> fields;   // in interface order (notifier id 0x8001, ...)
};

MemberNames v11MemberNames();
MemberNames v12MemberNames();

// The kName of every descriptor in a std::tuple of descriptors, in order.
template <typename Tuple>
std::vector<std::string> descriptorNames() {
  return std::apply(
      [](auto... descriptors) { return std::vector<std::string>{decltype(descriptors)::kName...}; },
      Tuple{});
}

}  // namespace orv::lum
