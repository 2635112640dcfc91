// Wire shape of every LUM type of both versions: the layout that marshal() visits against the
// documented field order, a round trip through the SOME/IP serializer with a value in every
// field, truncated payloads, and hand-checked byte images.

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "interfaces/lum/lum11_interface.h"
#include "interfaces/lum/lum12_interface.h"
#include "interfaces/lum/lum_test_support.h"
#include "platform/someip/serializer.h"
#include "platform/someip/test_support.h"

namespace {

using orv::lum::testing::Filler;
using orv::lum::testing::Recorder;
using platform::someip::deserialize;
using platform::someip::Deserializer;
using platform::someip::serialize;
using platform::someip::testing::fromHex;

// --- The documented layouts --------------------------------------------------------------------
// "{ }" a record, "[ ]" a sequence (one element shown), enums are u8.

const std::string kUuid = "u8 u8 u8 u8 u8 u8 u8 u8 u8 u8 u8 u8 u8 u8 u8 u8";
const std::string kSession = "str u16";
const std::string kValidation = "{ u8 u32 str }";
const std::string kDomainResult = "{ u8 u32 str u8 u8 " + kValidation + " " + kValidation + " }";
const std::string kParameter = "{ str str }";
const std::string kManifest = "{ str str [ " + kParameter + " ] }";
const std::string kCrypto = "{ str str str }";
const std::string kDownloadSource = "{ b u8 str }";
const std::string kDiagAddress = "{ [ u16 ] }";
const std::string kPrecondition = "{ u16 str }";
const std::string kUrlResponse = "{ " + kUuid + " [ str ] u8 }";
const std::string kDebugMessage = "{ u16 str str }";
const std::string kReadyInfo = "{ u32 i64 }";
const std::string kCreateInput = "str u16 str [ " + kManifest + " ] [ " + kCrypto + " ] " +
                                 kDownloadSource + " " + kDiagAddress + " u8";
const std::string kDownloadProgress = "i64 i64 i32 u32 u32 str u8 str u8";
const std::string kUpdateProgress = "i64 i64 u32 u32 str u8 str u8";
// The v12 field entries, each led by its elementId.
const std::string kSessionStateEntry = "{ u16 u16 u8 u32 i64 }";
const std::string kOffTimeEntry = "{ u16 u16 u16 }";
const std::string kDebugMessageEntry = "{ u16 " + kDebugMessage + " }";
const std::string kResolveEntry = "{ u16 [ str ] u8 " + kUuid + " }";
const std::string kErrorEntry = "{ u16 u16 u32 }";

// Methods that both versions share, with the same layout.
const std::map<std::string, std::string> kSharedMethods = {
    {"createDomainUpdateSession.Input", kCreateInput},
    {"createDomainUpdateSession.Output", "u8 u16"},
    {"startDomainUpdateDownload.Input", kSession},
    {"startDomainUpdateDownload.Output", "u8"},
    {"getDomainUpdateDownloadProgress.Input", kSession},
    {"getDomainUpdateDownloadProgress.Output", kDownloadProgress},
    {"startDomainUpdate.Input", kSession},
    {"startDomainUpdate.Output", "u8"},
    {"getDomainUpdateProgress.Input", kSession},
    {"getDomainUpdateProgress.Output", kUpdateProgress},
    {"cancelDomainUpdate.Input", kSession},
    {"cancelDomainUpdate.Output", "u8 u8"},
    {"setDebugInstruction.Input", kSession + " str str"},
    {"setDebugInstruction.Output", "u8"},
    {"getDomainConfiguration.Input", kSession},
    {"getDomainConfiguration.Output", "str str u8"},
    {"getDomainUpdateResult.Input", kSession},
    {"getDomainUpdateResult.Output", kDomainResult + " u8"},
    {"closeDomainUpdateSession.Input", kSession},
    {"closeDomainUpdateSession.Output", "u8"},
    {"ackDomainOffTimeNotification.Input", "u16 u32"},
    {"ackDomainOffTimeNotification.Output", "u8"},
    {"checkProgrammingPreconditions.Input", kSession},
    {"checkProgrammingPreconditions.Output", "[ " + kPrecondition + " ] u8"},
    {"getServiceDescription.Input", ""},
    {"getServiceDescription.Output", "str str u8"},
    {"updateClientDownloadFinished.Input", kSession + " str"},
    {"updateClientDownloadFinished.Output", "u8"},
};

std::map<std::string, std::string> expectedLayouts() {
  std::map<std::string, std::string> out;
  for (const auto& [name, layout] : kSharedMethods) {
    out["v11 " + name] = layout;
    out["v12 " + name] = layout;
  }
  const std::map<std::string, std::string> v11 = {
      {"updateURLResponse.Input", kUrlResponse},
      {"updateURLResponse.Output", ""},
      {"getDomainUpdateSessionState.Input", kSession},
      {"getDomainUpdateSessionState.Output", "u8 str u8"},
      {"getDomainDownloadInfo.Input", kSession},
      {"getDomainDownloadInfo.Output", kReadyInfo + " u8"},
      {"getDomainUpdateInfo.Input", kSession},
      {"getDomainUpdateInfo.Output", kReadyInfo + " u8"},
      {"domainReadyForDownloadNotification.Sample", kReadyInfo + " u16"},
      {"domainReadyForUpdateNotification.Sample", kReadyInfo + " u16"},
      {"domainUpdateFinishedNotification.Sample", "u16"},
      {"domainOffTimeNotification.Sample", "u16 u16"},
      {"debugMessageNotification.Sample", kDebugMessage},
      {"resolveUpdateURLRequest.Sample", "[ str ] u8 " + kUuid},
      {"domainErrorNotification.Sample", "u16 u32"},
  };
  for (const auto& [name, layout] : v11)
    out["v11 " + name] = layout;
  const std::map<std::string, std::string> v12 = {
      {"updateUrlResponse.Input", kUrlResponse},
      {"updateUrlResponse.Output", ""},
      {"domainUpdateSessionState.Value", "[ " + kSessionStateEntry + " ]"},
      {"domainOffTimeNotification.Value", "[ " + kOffTimeEntry + " ]"},
      {"debugMessageNotification.Value", "[ " + kDebugMessageEntry + " ]"},
      {"resolveUpdateURLRequest.Value", "[ " + kResolveEntry + " ]"},
      {"domainErrorNotification.Value", "[ " + kErrorEntry + " ]"},
  };
  for (const auto& [name, layout] : v12)
    out["v12 " + name] = layout;
  return out;
}

// --- The checks for one type -------------------------------------------------------------------

class LayoutTable {
 public:
  LayoutTable() : expected_(expectedLayouts()) {}

  // Layout and field order, then a full round trip, then every truncation of the payload.
  template <typename T>
  void check(const std::string& key) {
    SCOPED_TRACE(key);
    checked_.insert(key);
    const auto it = expected_.find(key);
    if (it == expected_.end()) {
      ADD_FAILURE() << "no documented layout for " << key;
      return;
    }

    T one{};
    Filler oneElement(1);
    marshal(oneElement, one);
    Recorder recorder(one);
    marshal(recorder, one);
    EXPECT_EQ(recorder.text(), it->second);
    EXPECT_EQ(recorder.orderError(), "");

    // Two elements per sequence, so element boundaries and nested length fields are crossed.
    T sent{};
    Filler twoElements(2);
    marshal(twoElements, sent);
    const std::vector<uint8_t> bytes = serialize(sent);
    T empty{};
    if (!it->second.empty()) {
      EXPECT_NE(bytes, serialize(empty)) << "the filled value serialises like a default one";
    }

    T received{};
    Deserializer reader(bytes);
    marshal(reader, received);
    ASSERT_TRUE(reader.ok()) << reader.error();
    EXPECT_EQ(reader.remaining(), 0u);
    EXPECT_EQ(serialize(received), bytes);

    // A cut anywhere in the payload is malformed input, never a crash or a partial success.
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
      T partial{};
      std::string error;
      const std::vector<uint8_t> head(bytes.begin(), bytes.begin() + cut);
      EXPECT_FALSE(deserialize(head, &error, partial)) << "cut at " << cut;
    }
  }

  // Documented layouts that no check used: a descriptor or record that went missing.
  std::vector<std::string> unchecked() const {
    std::vector<std::string> out;
    for (const auto& entry : expected_)
      if (!checked_.count(entry.first))
        out.push_back(entry.first);
    return out;
  }

 private:
  std::map<std::string, std::string> expected_;
  std::set<std::string> checked_;
};

template <typename Tuple, typename F>
void forEachDescriptor(F&& f) {
  std::apply([&](auto... descriptors) { (f(descriptors), ...); }, Tuple{});
}

TEST(LumTypes, EveryInputOutputSampleAndValueMatchesItsLayoutAndRoundTrips) {
  LayoutTable table;
  forEachDescriptor<lum11::methods::All>([&](auto d) {
    using D = decltype(d);
    table.check<typename D::Input>(std::string("v11 ") + D::kName + ".Input");
    table.check<typename D::Output>(std::string("v11 ") + D::kName + ".Output");
  });
  forEachDescriptor<lum11::events::All>([&](auto d) {
    using D = decltype(d);
    table.check<typename D::Sample>(std::string("v11 ") + D::kName + ".Sample");
  });
  forEachDescriptor<lum12::methods::All>([&](auto d) {
    using D = decltype(d);
    table.check<typename D::Input>(std::string("v12 ") + D::kName + ".Input");
    table.check<typename D::Output>(std::string("v12 ") + D::kName + ".Output");
  });
  forEachDescriptor<lum12::fields::All>([&](auto d) {
    using D = decltype(d);
    table.check<typename D::Value>(std::string("v12 ") + D::kName + ".Value");
  });

  EXPECT_EQ(table.unchecked(), std::vector<std::string>{});
}

// --- Hand-checked byte images ------------------------------------------------------------------

struct ImageRow {
  const char* proves;
  std::vector<uint8_t> bytes;
  std::string image;
};

TEST(LumTypes, HandCheckedByteImages) {
  lum11::DebugMessageInfo debug{0x0102, "ID", ""};

  lum11::createDomainUpdateSession_diagnosticAddress addresses{{0x0010, 0x1A2B}};

  lum11::methods::GetDomainUpdateResult::Output result;
  result.domainResult.sessionStatus = lum11::CM_SessionStatus::error;
  result.domainResult.resultCode = 0x01020304;
  result.domainResult.errorDetails = "x";
  result.domainResult.errorCategories = 5;
  result.domainResult.retries = 6;
  result.domainResult.integrityValidationResult = {lum11::CM_ValidationStatus::failed, 7, ""};
  result.domainResult.safetyValidationResult = {lum11::CM_ValidationStatus::error, 8, "s"};
  result.returnStatus = lum11::CM_ReturnStatus::invalidState;

  lum12::UpdateUrlResponseStruct url;
  for (uint8_t i = 0; i < 16; ++i)
    url.updateURLRequestID[i] = i;
  url.urlInfo = {"a"};
  url.error = lum12::CM_UpdateUrlResponseStruct_error::fileNotFound;

  lum11::DT_manifestInformation_struct manifest{"T", "", {{"k", "v"}}};

  lum12::fields::DomainErrorNotification::Value errors{{3, 0x0102, 0x0000025D}};

  // Outputs with two one-byte enumerations: only the image tells a swap apart.
  lum11::methods::GetDomainUpdateSessionState::Output state{
      lum11::CM_CurrentProcessingState::verifying, "d", lum11::CM_ReturnStatus::invalidState};
  lum11::methods::CancelDomainUpdate::Output cancel{lum11::CM_CancelStatus::cancelling,
                                                    lum11::CM_ReturnStatus::internalError};
  lum12::methods::GetDomainUpdateDownloadProgress::Output progress;
  progress.totalBytes = 0x0102030405060708;
  progress.processedBytes = -2;
  progress.downloadRate = -1;
  progress.currentPackageNumber = 3;
  progress.totalPackageNumber = 4;
  progress.packageName = "p";
  progress.currentProcessingState = decltype(progress.currentProcessingState)::failFinished;
  progress.currentProcessingDetails = "";
  progress.returnStatus = lum12::CM_ReturnStatus_state::busy;

  const std::vector<ImageRow> rows = {
      {"processing state first, return status last", serialize(state), "03 00000005efbbbf6400 01"},
      {"cancel status before return status", serialize(cancel), "01 02"},
      {"progress: signed 64/32-bit values, then the two enumerations around the details",
       serialize(progress),
       "0102030405060708 fffffffffffffffe ffffffff 00000003 00000004 00000005efbbbf7000 65 "
       "00000004efbbbf00 04"},
      {"strings carry length, BOM and NUL; an empty string is 4 bytes", serialize(debug),
       "0102 | 00000006 efbbbf 4944 00 | 00000004 efbbbf 00"},
      {"a sequence's length counts bytes, not elements", serialize(addresses),
       "00000004 0010 1a2b"},
      {"nested records follow their parent's fields in order, enums are one byte",
       serialize(result),
       "03 01020304 00000005efbbbf7800 05 06 | 03 00000007 00000004efbbbf00 "
       "| 04 00000008 00000005efbbbf7300 | 01"},
      {"a uuid is 16 bytes without length; urlInfo is a sequence of strings", serialize(url),
       "000102030405060708090a0b0c0d0e0f | 00000009 00000005efbbbf6100 | 01"},
      {"nested sequences each count their own bytes", serialize(manifest),
       "00000005efbbbf5400 00000004efbbbf00 | 00000012 | 00000005efbbbf6b00 "
       "00000005efbbbf7600"},
      {"a field entry starts with its elementId", serialize(errors),
       "00000008 | 0003 0102 0000025d"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proves);
    EXPECT_EQ(row.bytes, fromHex(row.image));
  }
}

}  // namespace
