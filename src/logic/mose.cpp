#include "logic/mose.h"

#include <string_view>

#include "logic/base64.h"
#include "minfw/log.h"

namespace orv {
namespace {

constexpr const char* kTag = "GLOBAL";

}  // namespace

bool Mose::ExtractEncrypted(std::string& input, std::string& header,
                            std::vector<unsigned char>& encryptedKey,
                            std::vector<unsigned char>& iv, std::vector<unsigned char>& cipherText,
                            std::vector<unsigned char>& tag) {
  return ExtractEncrypted(input, 5, header, {&encryptedKey, &iv, &cipherText, &tag});
}

bool Mose::ExtractSigned(std::string& input, std::string& header,
                         std::vector<unsigned char>& payload,
                         std::vector<unsigned char>& signature) {
  return ExtractEncrypted(input, 3, header, {&payload, &signature});
}

bool Mose::ExtractEncrypted(const std::string& input, std::size_t expected, std::string& header,
                            std::initializer_list<std::vector<unsigned char>*> parts) {
  // Count first, so that a text of many dots costs no copies before it is refused.
  std::size_t count = 1;
  for (const char c : input)
    count += c == '.' ? 1 : 0;
  if (count != expected) {
    MLOG_ERROR(kTag, "Not a valid MOSE container: nr elements [", count, "], expected ", expected,
               "!");
    return false;
  }
  const std::string_view text(input);
  std::size_t begin = 0;
  auto next = [&text, &begin]() {
    std::size_t end = text.find('.', begin);
    if (end == std::string_view::npos)
      end = text.size();
    const std::string part(text.substr(begin, end - begin));
    begin = end + 1;
    return part;
  };
  const std::vector<unsigned char> decoded = base64UrlDecode(next());
  header.assign(decoded.begin(), decoded.end());
  for (std::vector<unsigned char>* part : parts)
    *part = base64UrlDecode(next());
  return true;
}

}  // namespace orv
