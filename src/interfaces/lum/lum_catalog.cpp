#include "interfaces/lum/lum_catalog.h"

#include "interfaces/lum/lum11_interface.h"
#include "interfaces/lum/lum12_interface.h"

namespace orv::lum {

MemberNames v11MemberNames() {
  return {descriptorNames<lum11::methods::All>(), descriptorNames<lum11::events::All>(), {}};
}

MemberNames v12MemberNames() {
  return {descriptorNames<lum12::methods::All>(), {}, descriptorNames<lum12::fields::All>()};
}

}  // namespace orv::lum
