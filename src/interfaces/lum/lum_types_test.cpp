// Wire shape of the LUM types of both versions: a round trip of every type through the SOME/IP
// serializer with a value in every field, truncated payloads, and hand-checked byte images.
#include <gtest/gtest.h>

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

// Field order, a round trip with a value in every field and two elements in every sequence (so
// element boundaries and nested length fields are crossed), then every truncation of the payload.
template <typename T>
void check(const std::string& name) {
  SCOPED_TRACE(name);
  T sent{};
  Filler filler(2);
  marshal(filler, sent);
  Recorder recorder(sent);
  marshal(recorder, sent);
  EXPECT_EQ(recorder.orderError(), "");
  const std::vector<uint8_t> bytes = serialize(sent);
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

template <typename Tuple, typename F>
void forEachDescriptor(F&& f) {
  std::apply([&](auto... descriptors) { (f(descriptors), ...); }, Tuple{});
}

TEST(LumTypes, EveryInputOutputSampleAndValueRoundTripsAndRefusesTruncation) {
  auto methods = [](auto d) {
    using D = decltype(d);
    check<typename D::Input>(std::string(D::kName) + ".Input");
    check<typename D::Output>(std::string(D::kName) + ".Output");
  };
  forEachDescriptor<lum11::methods::All>(methods);
  forEachDescriptor<lum12::methods::All>(methods);
  forEachDescriptor<lum11::events::All>(
      [](auto d) { check<typename decltype(d)::Sample>(decltype(d)::kName); });
  forEachDescriptor<lum12::fields::All>(
      [](auto d) { check<typename decltype(d)::Value>(decltype(d)::kName); });
}

// Hand-checked byte images of LUM records (string and sequence encodings are the codec's).
TEST(LumTypes, HandCheckedByteImages) {
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
  const std::tuple<const char*, std::vector<uint8_t>, const char*> rows[] = {
      {"processing state first, return status last", serialize(state), "03 00000005efbbbf6400 01"},
      {"cancel status before return status", serialize(cancel), "01 02"},
      {"progress: signed 64/32-bit values, then the two enumerations around the details",
       serialize(progress),
       "0102030405060708 fffffffffffffffe ffffffff 00000003 00000004 00000005efbbbf7000 65 "
       "00000004efbbbf00 04"},
      {"nested records follow their parent's fields in order, enums are one byte",
       serialize(result),
       "03 01020304 00000005efbbbf7800 05 06 | 03 00000007 00000004efbbbf00 "
       "| 04 00000008 00000005efbbbf7300 | 01"},
      {"a uuid is 16 bytes without length; urlInfo is a sequence of strings", serialize(url),
       "000102030405060708090a0b0c0d0e0f | 00000009 00000005efbbbf6100 | 01"},
      {"a field entry starts with its elementId", serialize(errors),
       "00000008 | 0003 0102 0000025d"},
  };
  for (const auto& [proves, bytes, image] : rows)
    EXPECT_EQ(bytes, fromHex(image)) << proves;
}

}  // namespace
