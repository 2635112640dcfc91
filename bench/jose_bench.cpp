// Key-manifest reading in the production build: a container of 512000 bytes (the size limit)
// through KeyManifest::Extract (key store lookup, key unwrap, AES-GCM, payload JSON), one
// benchmark per algorithm. Keys are generated at start into a private key store.
#include <benchmark/benchmark.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "logic/base64.h"
#include "logic/jose.h"
#include "logic/key_manifest.h"
#include "minfw/log.h"

namespace {

constexpr std::size_t kManifestBytes = 512000;

struct Store {
  Store() {
    char pattern[] = "/tmp/jose_bench.XXXXXX";
    dir = ::mkdtemp(pattern) ? pattern : "";
    ::setenv("ORVANE_KEY_DIR", dir.c_str(), 1);
    rsa.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)));
    ec.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    write("rsa.pem", rsa.get());
    write("ec.pem", ec.get());
    for (const std::size_t size : {16u, 32u}) {
      orv::SecretBytes& secret = size == 16 ? oct128 : oct256;
      secret.bytes().assign(size, 0x5a);
      writeText(size == 16 ? "oct128.jwk" : "oct256.jwk",
                R"({"kty":"oct","k":")" + orv::base64UrlEncode(secret.bytes()) + "\"}");
    }
  }
  ~Store() { std::filesystem::remove_all(dir); }
  void writeText(const std::string& name, const std::string& text) {
    const std::string path = dir + "/" + name;
    std::FILE* f = std::fopen(path.c_str(), "w");
    std::fputs(text.c_str(), f);
    std::fclose(f);
    ::chmod(path.c_str(), 0600);
  }
  void write(const std::string& name, EVP_PKEY* key) {
    const std::string path = dir + "/" + name;
    std::FILE* f = std::fopen(path.c_str(), "w");
    PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
    std::fclose(f);
    ::chmod(path.c_str(), 0600);
  }
  std::string dir;
  orv::PkeyPtr rsa;
  orv::PkeyPtr ec;
  orv::SecretBytes oct128;
  orv::SecretBytes oct256;
};

Store& store() {
  static Store instance;
  return instance;
}

// A container of exactly kManifestBytes (give or take a base64 character) for `recipient`.
std::string manifest(const orv::jose::Recipient& recipient) {
  std::string files;
  for (int i = 0; files.size() < kManifestBytes * 3 / 4 - 2000; ++i) {
    files += std::string(i ? "," : "") + R"({"File":"/domain-)" + std::to_string(i) +
             R"(.pkg","CryptoParameters":[{"Name":"Key","Value":"00112233445566778899aabbccdd)" +
             R"(eeff00112233445566778899aabbccddeeff"},{"Name":"IV","Value":"000102030405060)" +
             R"(708090a0b"},{"Name":"Algorithm","Value":"AES-256-GCM"}]})";
  }
  std::string pad;
  std::string container;
  for (int round = 0; round < 3; ++round) {
    orv::jose::encrypt(recipient, R"({"Pad":")" + pad + R"(","EncryptedFiles":[)" + files + "]}",
                       container);
    if (container.size() < kManifestBytes)
      pad.append((kManifestBytes - container.size()) * 3 / 4, 'x');
  }
  return container;
}

void BM_ReadKeyManifest(benchmark::State& state, EVP_PKEY* key, const orv::SecretBytes* secret,
                        const char* kid, const char* enc) {
  std::string container = manifest({key, secret, kid, enc});
  for (auto _ : state) {
    orv::KeyManifest reader;
    if (!reader.Extract(container)) {
      state.SkipWithError("the manifest did not decrypt");
      break;
    }
    benchmark::DoNotOptimize(reader.payload());
  }
  state.counters["bytes"] = static_cast<double>(container.size());
}

}  // namespace

int main(int argc, char** argv) {
  kel::vxp3::minfw::Logger::instance().setMinLevel(kel::vxp3::minfw::kError);
  Store& keys = store();
  for (const char* enc : {"A256GCM", "A128GCM"}) {
    const std::string suffix = std::string("/") + enc;
    benchmark::RegisterBenchmark(("RSA-OAEP-256" + suffix).c_str(), BM_ReadKeyManifest,
                                 keys.rsa.get(), nullptr, "rsa", enc)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("ECDH-ES+A256KW" + suffix).c_str(), BM_ReadKeyManifest,
                                 keys.ec.get(), nullptr, "ec", enc)
        ->Unit(benchmark::kMillisecond);
    const bool wide = suffix == "/A256GCM";
    benchmark::RegisterBenchmark(("dir" + suffix).c_str(), BM_ReadKeyManifest, nullptr,
                                 wide ? &keys.oct256 : &keys.oct128, wide ? "oct256" : "oct128",
                                 enc)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
