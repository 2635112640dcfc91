#pragma once
// Shared helper of the LUM interface types: a record is its fields in order, framed by
// beginStruct()/endStruct() so that a binding that frames records can do so.
//
// Threading: stateless.

#include "platform/middleware/marshal.h"

namespace orv::lum {

template <typename... Ts>
void marshalRecord(platform::middleware::FieldVisitor& v, Ts&... fields) {
  v.beginStruct();
  platform::middleware::marshalAll(v, fields...);
  v.endStruct();
}

}  // namespace orv::lum
