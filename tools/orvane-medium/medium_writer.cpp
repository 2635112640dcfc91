#include "medium_writer.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <utility>

#include "logic/base64.h"
#include "logic/decrypt.h"
#include "logic/key_manifest.h"
#include "logic/mose.h"
#ifdef ORVANE_CRYPTO_PRODUCTION
#include "logic/jose.h"
#endif
#include "logic/update_medium.h"
#include "minfw/log.h"

namespace orvmedium {

using kel::vxp3::minfw::json::JSON;

const char* const kUsage =
    "usage: orvane-medium --out DIR --train NAME [--order TEXT] --manifest NAME[=SOURCEFILE]...\n"
    "                     --diag-address ADDR... [--key-manifest FILENAME] [--payload FILE]\n"
    "                     [--no-key-manifest] [--encrypt-to KEY.pem [--kid NAME]]\n"
    "                     [--sign-with KEY.pem [--kid NAME]]\n"
    "       orvane-medium inspect [--key-dir DIR] FILE\n";

namespace {

constexpr const char* kDescription = "NodboxUpdateMedium.json";

// A name that stays inside the folder.
bool plainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

// Decimal or 0x-hexadecimal, 0..65535, nothing else (no sign, no blanks).
std::vector<unsigned char> randomBytes(std::size_t count) {
  std::random_device device;
  std::vector<unsigned char> bytes(count);
  for (auto& byte : bytes)
    byte = static_cast<unsigned char>(device());
  return bytes;
}

std::string randomHex(std::size_t count) {
  const auto bytes = randomBytes(count);
  return kel::vxp3::minfw::hexText(bytes.data(), bytes.size());
}

bool readWhole(const std::string& path, std::string& content) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

bool writeWhole(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  return !out.fail();
}

}  // namespace

bool parseArguments(const std::vector<std::string>& args, Options& options, std::string& error) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--no-key-manifest") {
      options.noKeyManifest = true;
      continue;
    }
    if (i + 1 >= args.size()) {
      error = arg.rfind("--", 0) == 0 ? "missing value after " + arg : "unknown argument " + arg;
      return false;
    }
    const std::string& value = args[++i];
    if (arg == "--out") {
      options.out = value;
    } else if (arg == "--train") {
      options.train = value;
    } else if (arg == "--order") {
      options.order = value;
    } else if (arg == "--key-manifest") {
      options.keyManifest = value;
    } else if (arg == "--payload") {
      options.payloadFile = value;
    } else if (arg == "--encrypt-to" || arg == "--sign-with") {
      const bool sign = arg == "--sign-with";
      (sign ? options.signWith : options.encryptTo) = value;
      // The key id defaults to the file's name without ".pem"; a --kid right after names it.
      std::string& kid = sign ? options.signKid : options.encryptKid;
      kid = std::filesystem::path(value).stem().string();
      if (i + 2 < args.size() && args[i + 1] == "--kid") {
        kid = args[i + 2];
        i += 2;
      }
#ifdef ORVANE_CRYPTO_PRODUCTION
      if (!orv::KeyStore::plainKid(kid)) {
        error = "key id [" + kid + "] is not a plain file name";
        return false;
      }
#else
      error = arg + " needs the production build";
      return false;
#endif
    } else if (arg == "--manifest") {
      const std::size_t equals = value.find('=');
      ManifestArg manifest{value.substr(0, equals),
                           equals == std::string::npos ? "" : value.substr(equals + 1)};
      if (!plainName(manifest.name) || (equals != std::string::npos && manifest.source.empty())) {
        error = "--manifest needs NAME[=SOURCEFILE] with a plain file name, got [" + value + "]";
        return false;
      }
      options.manifests.push_back(std::move(manifest));
    } else if (arg == "--diag-address") {
      uint16_t address = 0;
      if (!orv::UpdateMedium::toAddress(value, address)) {
        error = "--diag-address [" + value + "] is not a number from 0 to 65535 (or 0x0 to 0xffff)";
        return false;
      }
      options.diagAddresses.push_back(address);
    } else {
      error = "unknown argument " + arg;
      return false;
    }
  }
  if (options.out.empty() || options.train.empty()) {
    error = options.out.empty() ? "--out DIR is required" : "--train NAME is required";
  } else if (options.manifests.empty()) {
    error = "at least one --manifest is required";
  } else if (options.diagAddresses.empty()) {
    error = "at least one --diag-address is required";
  } else if (!plainName(options.keyManifest)) {
    error = "--key-manifest needs a plain file name, got [" + options.keyManifest + "]";
  } else if (options.noKeyManifest &&
             !(options.payloadFile + options.encryptTo + options.signWith).empty()) {
    error = "--payload, --encrypt-to, --sign-with and --no-key-manifest exclude each other";
  }
  if (!options.signWith.empty() && options.encryptTo.empty() && error.empty())
    error = "--sign-with needs --encrypt-to";
  std::set<std::string> names{kDescription};
  if (!options.noKeyManifest && !names.insert(options.keyManifest).second && error.empty())
    error = "--key-manifest must not be " + options.keyManifest;
  for (const ManifestArg& manifest : options.manifests) {
    if (!names.insert(manifest.name).second && error.empty())
      error = "--manifest " + manifest.name + " names a file twice";
  }
  return error.empty();
}

JSON makePayload(const std::vector<ManifestArg>& manifests) {
  JSON files = JSON::Make(JSON::Class::Array);
  for (const ManifestArg& manifest : manifests) {
    JSON parameters = JSON::Make(JSON::Class::Array);
    for (const auto& [name, value] : {std::pair<std::string, std::string>{"Key", randomHex(32)},
                                      {"IV", randomHex(12)},
                                      {"Algorithm", "AES-256-GCM"}}) {
      JSON parameter;
      parameter["Name"] = name;
      parameter["Value"] = value;
      parameters.append(std::move(parameter));
    }
    JSON entry;
    entry["File"] = "/" + manifest.name;
    entry["CryptoParameters"] = std::move(parameters);
    files.append(std::move(entry));
  }
  JSON payload;
  payload["EncryptedFiles"] = std::move(files);
  return payload;
}

std::string makeKeyManifest(const JSON& payload) {
  JSON header;
  header["alg"] = "DEBUG";
  header["enc"] = "DEBUG";
  return orv::base64UrlEncode(header.dump()) + "." + orv::base64UrlEncode(randomBytes(32)) + "." +
         orv::base64UrlEncode(randomBytes(12)) + "." + orv::base64UrlEncode(payload.dump()) + "." +
         orv::base64UrlEncode(randomBytes(16));
}

namespace {

// The key manifest of `payload`: DEBUG, or encrypted to --encrypt-to (and signed with
// --sign-with). A DEBUG manifest is read back through the service's reader; an encrypted one
// cannot be (the tool holds no private key), so its read-back is the container's shape.
Result protect(const Options& options, const JSON& payload, std::string& container,
               std::string& error) {
  if (options.encryptTo.empty()) {
    container = makeKeyManifest(payload);
    orv::KeyManifest check;
    if (!orv::Decrypt::production() &&
        (!check.Extract(container) || check.payload().dump() != payload.dump())) {
      error = "the key manifest does not read back to its payload";
      return Result::kFailed;
    }
    return Result::kOk;
  }
#ifdef ORVANE_CRYPTO_PRODUCTION
  orv::PkeyPtr recipient;
  orv::PkeyPtr signer;
  if (!orv::KeyStore::loadPemFile(options.encryptTo, recipient) ||
      (!options.signWith.empty() && !orv::KeyStore::loadPemFile(options.signWith, signer))) {
    error = "cannot read the key files (see the lines above)";
    return Result::kBadInput;
  }
  orv::jose::Recipient to{recipient.get(), nullptr, options.encryptKid};
  if (!orv::jose::encrypt(to, payload.dump(), container) ||
      (signer && !orv::jose::sign(signer.get(), options.signKid, container, container))) {
    error = "cannot encrypt or sign with these keys (see the lines above)";
    return Result::kBadInput;
  }
  std::string header;
  std::vector<unsigned char> a, b, c, d;
  std::string inner = container;
  if (signer && !orv::Mose::ExtractSigned(container, header, a, b)) {
    error = "the signed key manifest does not read back";
    return Result::kFailed;
  }
  if (signer)
    inner.assign(a.begin(), a.end());
  if (!orv::Mose::ExtractEncrypted(inner, header, a, b, c, d)) {
    error = "the key manifest does not read back";
    return Result::kFailed;
  }
  return Result::kOk;
#else
  error = "--encrypt-to needs the production build";
  return Result::kBadInput;
#endif
}

}  // namespace

Result writeMedium(const Options& options, std::string& error) {
  namespace fs = std::filesystem;
  std::vector<std::pair<std::string, std::string>> files;  // name, content

  JSON description;
  description["train"] = options.train;
  description["order"] = options.order;
  description["manifests"] = JSON::Make(JSON::Class::Array);
  description["diagAddresses"] = JSON::Make(JSON::Class::Array);
  for (const uint16_t address : options.diagAddresses)
    description["diagAddresses"].append(std::to_string(address));
  for (const ManifestArg& manifest : options.manifests) {
    description["manifests"].append(manifest.name);
    std::string content;
    if (manifest.source.empty()) {
      JSON placeholder;
      placeholder["train"] = options.train;
      placeholder["file"] = manifest.name;
      content = placeholder.dump();
    } else if (!readWhole(manifest.source, content)) {
      error = "cannot read manifest source " + manifest.source;
      return Result::kBadInput;
    }
    files.emplace_back(manifest.name, std::move(content));
  }

  if (!options.noKeyManifest) {
    description["keyManifest"] = options.keyManifest;
    JSON payload;
    if (options.payloadFile.empty()) {
      payload = makePayload(options.manifests);
    } else {
      std::string text;
      if (!readWhole(options.payloadFile, text)) {
        error = "cannot read payload file " + options.payloadFile;
        return Result::kBadInput;
      }
      payload = JSON::Load(text);
      if (payload.JSONType() != JSON::Class::Object) {
        error = "payload file " + options.payloadFile + " does not hold a JSON object";
        return Result::kBadInput;
      }
    }
    std::string container;
    const Result made = protect(options, payload, container, error);
    if (made != Result::kOk)
      return made;
    files.emplace_back(options.keyManifest, std::move(container));
  }
  files.emplace_back(kDescription, description.dump());

  std::error_code ec;
  fs::create_directories(options.out, ec);
  if (ec || !fs::is_directory(options.out)) {
    error = "cannot create folder " + options.out + (ec ? ": " + ec.message() : "");
    return Result::kFailed;
  }
  for (const auto& [name, content] : files) {
    const std::string path = (fs::path(options.out) / name).string();
    if (!writeWhole(path, content)) {
      error = "cannot write " + path;
      return Result::kFailed;
    }
  }
  return Result::kOk;
}

}  // namespace orvmedium
