// Parse and dump speed of minfw::json::JSON against nlohmann::json on the two document shapes
// the service handles: the small persistence record and a large key-manifest payload.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "minfw/json.h"

namespace {

using kel::vxp3::minfw::json::JSON;

std::string recordText() {
  JSON record;
  record["channel"] = 1;
  record["updatetype"] = 4;
  record["repairinstructionid"] = 123456;
  record["statehmi"] = 7;
  record["statelum"] = 3;
  record["errorcode"] = 0;
  record["progress"] = 100;
  record["trainname"] = "NODBOX_TRAIN_2024_W17_RELEASE";
  std::string manifest;
  for (int i = 0; i < 12; ++i)
    manifest += "eyJhbGciOiJERUJVRyIsImVuYyI6IkExMjhHQ00ifQ.";
  record["keyManifest"] = manifest;
  record["timestamps"]["start-date"] = "21.04.2024";
  record["timestamps"]["start-time"] = "10:11:12";
  record["timestamps"]["end-date"] = "21.04.2024";
  record["timestamps"]["end-time"] = "10:41:57";
  return record.dump();
}

// {"EncryptedFiles": [{"File": ..., "CryptoParameters": [3 x {"Name", "Value"}]}, ...]}
std::string manifestText(std::size_t targetBytes) {
  JSON files = JSON::Make(JSON::Class::Array);
  std::string text;
  for (int i = 0; text.size() < targetBytes; ++i) {
    char path[96];
    std::snprintf(path, sizeof(path), "/media/usb0/update/domain_%02d/container_%05d.bin", i % 40,
                  i);
    char iv[40];
    std::snprintf(iv, sizeof(iv), "%08x%08x%08x", i * 2654435761u, i * 40503u, i + 7u);
    JSON params = JSON::Make(JSON::Class::Array);
    JSON alg;
    alg["Name"] = "Algorithm";
    alg["Value"] = "AES-256-GCM";
    JSON ivParam;
    ivParam["Name"] = "IV";
    ivParam["Value"] = iv;
    JSON tag;
    tag["Name"] = "Tag";
    tag["Value"] = std::string(iv) + std::string(iv).substr(0, 8);
    params.append(alg);
    params.append(ivParam);
    params.append(tag);
    JSON entry;
    entry["File"] = path;
    entry["CryptoParameters"] = params;
    files.append(entry);
    if (i % 256 == 0) {
      JSON doc;
      doc["EncryptedFiles"] = files;
      text = doc.dump();
    }
  }
  JSON doc;
  doc["EncryptedFiles"] = files;
  return doc.dump();
}

const std::string& record() {
  static const std::string text = recordText();
  return text;
}

const std::string& manifest() {
  static const std::string text = manifestText(500 * 1024);
  return text;
}

void ParseOrvane(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    JSON value = JSON::Load(text);
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void ParseNlohmann(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    nlohmann::json value = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void DumpOrvane(benchmark::State& state, const std::string& text) {
  const JSON value = JSON::Load(text);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string out = value.dump();
    bytes += out.size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

// Pretty-printed with an indent of two, the closest match to the service's own layout.
void DumpNlohmann(benchmark::State& state, const std::string& text) {
  const nlohmann::json value = nlohmann::json::parse(text);
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::string out = value.dump(2);
    bytes += out.size();
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void BM_RecordParse_Orvane(benchmark::State& s) {
  ParseOrvane(s, record());
}
void BM_RecordParse_Nlohmann(benchmark::State& s) {
  ParseNlohmann(s, record());
}
void BM_RecordDump_Orvane(benchmark::State& s) {
  DumpOrvane(s, record());
}
void BM_RecordDump_Nlohmann(benchmark::State& s) {
  DumpNlohmann(s, record());
}
void BM_ManifestParse_Orvane(benchmark::State& s) {
  ParseOrvane(s, manifest());
}
void BM_ManifestParse_Nlohmann(benchmark::State& s) {
  ParseNlohmann(s, manifest());
}
void BM_ManifestDump_Orvane(benchmark::State& s) {
  DumpOrvane(s, manifest());
}
void BM_ManifestDump_Nlohmann(benchmark::State& s) {
  DumpNlohmann(s, manifest());
}

BENCHMARK(BM_RecordParse_Orvane);
BENCHMARK(BM_RecordParse_Nlohmann);
BENCHMARK(BM_RecordDump_Orvane);
BENCHMARK(BM_RecordDump_Nlohmann);
BENCHMARK(BM_ManifestParse_Orvane)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ManifestParse_Nlohmann)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ManifestDump_Orvane)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ManifestDump_Nlohmann)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
