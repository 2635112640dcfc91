#pragma once
// The HMI states of a local update as the head unit, the record ("statehmi") and the workshop
// laptop see them. The numbers are part of the record and of the HMI interface: fixed.
//
// Threading: constants and pure functions over constant tables; thread-safe.

#include <cstdint>

namespace orv {

enum HmiState : uint32_t {
  eINSTALLATIONAVAILABLE = 0,
  eINSTALLATIONCANCELLED = 1,
  eINSTALLATIONCONFIRMED = 2,
  eINSTALLATIONFAILED = 3,
  eINSTALLATIONFAILEDCONFIRMED = 4,
  eINSTALLATIONFINISHED = 5,
  eINSTALLATIONFINISHEDCONFIRMED = 6,
  eINSTALLATIONREJECTED = 7,
  eINSTALLATIONREJECTEDCONFIRMED = 8,
  eINSTALLING = 9,
  eINVALID = 10,
};

// Whether an HMI answers the offers or the service answers them itself.
enum HmiMode : uint32_t {
  eHEADLESS = 0,
  eINTERACTIVE = 1,
};

// The state's name; "!!UNDEFINED!!" above eINVALID.
inline const char* hmiStateName(uint32_t state) {
  static constexpr const char* kNames[] = {"eINSTALLATIONAVAILABLE",
                                           "eINSTALLATIONCANCELLED",
                                           "eINSTALLATIONCONFIRMED",
                                           "eINSTALLATIONFAILED",
                                           "eINSTALLATIONFAILEDCONFIRMED",
                                           "eINSTALLATIONFINISHED",
                                           "eINSTALLATIONFINISHEDCONFIRMED",
                                           "eINSTALLATIONREJECTED",
                                           "eINSTALLATIONREJECTEDCONFIRMED",
                                           "eINSTALLING",
                                           "eINVALID"};
  return state < sizeof(kNames) / sizeof(kNames[0]) ? kNames[state] : "!!UNDEFINED!!";
}

inline const char* hmiModeName(uint32_t mode) {
  static constexpr const char* kNames[] = {"eHEADLESS", "eINTERACTIVE"};
  return mode < sizeof(kNames) / sizeof(kNames[0]) ? kNames[mode] : "!!UNDEFINED!!";
}

}  // namespace orv
