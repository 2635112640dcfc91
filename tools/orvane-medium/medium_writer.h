#pragma once
// The core of orvane-medium: reads the command line and writes an update-medium folder
// (description, update manifests, key manifest: DEBUG, or, in the production build, encrypted
// to a public key and optionally signed), so that nobody writes the JSON by hand; and inspects a
// key manifest or signed container.
//
// Everything is prepared and checked in memory first (sources read, payload loaded, the key
// manifest read back through KeyManifest::Extract); only then is the folder written, so bad
// input leaves no half-written folder behind.
//
// Threading: plain functions without shared state; call from one thread (the logger is the
// process-wide one).

#include <cstdint>
#include <string>
#include <vector>

#include "minfw/json.h"

namespace orvmedium {

struct ManifestArg {
  std::string name;    // file name in the folder
  std::string source;  // file copied to `name`; empty: a placeholder is written
};

struct Options {
  std::string out;
  std::string train;
  std::string order;
  std::vector<ManifestArg> manifests;
  std::vector<uint16_t> diagAddresses;
  std::string keyManifest = "KeyManifest.mose";
  std::string payloadFile;  // empty: the payload is generated
  bool noKeyManifest = false;
  std::string encryptTo;  // public key file; empty: the DEBUG form
  std::string encryptKid;
  std::string signWith;  // private key file; empty: not signed
  std::string signKid;
};

extern const char* const kUsage;

// `args` without the program name. False with a message that names the faulty argument.
bool parseArguments(const std::vector<std::string>& args, Options& options, std::string& error);

// {"EncryptedFiles": [...]}: one entry per manifest, "File" "/<name>", random key (32 bytes) and
// IV (12 bytes) as lower-case hex, algorithm "AES-256-GCM".
kel::vxp3::minfw::json::JSON makePayload(const std::vector<ManifestArg>& manifests);

// A 5-part container with header {"alg":"DEBUG","enc":"DEBUG"}, random key, IV and tag parts
// and the payload's text as cipher text.
std::string makeKeyManifest(const kel::vxp3::minfw::json::JSON& payload);

// `inspect [--key-dir DIR] FILE`: prints what the container holds and whether it decrypts or
// verifies with the keys in DIR; the exit status, 0 only when it did.
int inspect(const std::vector<std::string>& args);

enum class Result {
  kOk,
  kBadInput,  // an argument's file cannot be read or is not what it must be
  kFailed,    // writing failed, or the key manifest did not read back
};

Result writeMedium(const Options& options, std::string& error);

}  // namespace orvmedium
