#include "logic/decrypt.h"

#include "minfw/log.h"

namespace orv {
namespace {

constexpr const char* kTag = "GLOBAL";

}  // namespace

bool Decrypt::Execute(std::vector<unsigned char>& input, std::string& algCek, std::string& algEnc,
                      std::vector<unsigned char>& /*encryptedKey*/,
                      std::vector<unsigned char>& /*iv*/, std::vector<unsigned char>& /*tag*/,
                      std::string& output) {
  MLOG_TRACE(kTag, "alg_cek: [", algCek, "], alg_enc: [", algEnc, "]");
  if (algCek == "DEBUG") {
    MLOG_DEBUG(kTag, "DEBUG, returning input as output!");
    output.assign(input.begin(), input.end());
    return true;
  }
  MLOG_ERROR(kTag, "SIMU BUILD cannot decrypt!");
  return false;
}

}  // namespace orv
