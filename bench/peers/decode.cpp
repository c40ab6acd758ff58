// Lumora's side of the comparison with an npm beacon parser: for each payload
// of payloads.json, the iBeacon decode an application runs on manufacturer
// data (advDataIsBeacon, then getBeaconInfoFromData with the UUID text) and
// the distance estimate from the decoded power and the payload's RSSI.
// bench/peers/run.sh runs this and the peer on the same payloads.
//
//   bench_peers [--payloads=FILE] [Google Benchmark flags]
//
// Each benchmark's label holds what was decoded ("E2C56DB5-... 1 2 -59" or
// "not an iBeacon"), so the two sides can be checked to agree.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Lumora/TQBleFinder.h"

namespace {

using lumora::Data;
using lumora::Number;
using lumora::TQBleFinder;

struct Payload {
  std::string name;
  Data data;
  double rssi = 0;
};

std::optional<TQBleFinder::BeaconInfo> decode(const Data& data) {
  if (!TQBleFinder::advDataIsBeacon(data)) return std::nullopt;
  return TQBleFinder::getBeaconInfoFromData(data);
}

std::string describe(const std::optional<TQBleFinder::BeaconInfo>& info) {
  if (!info) return "not an iBeacon";
  return info->uuid.str() + " " + std::to_string(info->major.unsignedShortValue()) + " " +
         std::to_string(info->minor.unsignedShortValue()) + " " +
         std::to_string(info->power.intValue());
}

void registerPayload(const Payload& p) {
  benchmark::RegisterBenchmark(("decode/" + p.name).c_str(), [p](benchmark::State& state) {
    for (auto _ : state) {
      auto info = decode(p.data);
      benchmark::DoNotOptimize(info);
    }
    state.SetLabel(describe(decode(p.data)));
  });
  // An application estimates the distance from the power it just decoded.
  const auto info = decode(p.data);
  const std::optional<Number> power = info ? info->power : Number(-59);
  benchmark::RegisterBenchmark(("distance/" + p.name).c_str(), [p, power](benchmark::State& state) {
    const std::optional<Number> rssi = Number(p.rssi);
    for (auto _ : state) {
      auto distance = TQBleFinder::calculatedDistance(power, rssi);
      benchmark::DoNotOptimize(distance);
    }
    const auto distance = TQBleFinder::calculatedDistance(power, rssi);
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", distance ? distance->doubleValue() : 0.0);
    state.SetLabel(text);
  });
}

std::vector<Payload> load(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error(path + ": cannot open");
  const auto document = nlohmann::json::parse(in);
  std::vector<Payload> out;
  for (const auto& p : document.at("payloads")) {
    const auto bytes = lumora::bytesFromHex(p.at("data").get<std::string>());
    if (!bytes) throw std::runtime_error(path + ": bad hex in " + p.at("name").dump());
    out.push_back({p.at("name").get<std::string>(), *bytes, p.at("rssi").get<double>()});
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = LUMORA_PEER_PAYLOADS;
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--payloads=", 0) == 0) {
      path = arg.substr(11);
    } else {
      rest.push_back(argv[i]);
    }
  }
  try {
    for (const Payload& p : load(path)) registerPayload(p);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "bench_peers: %s\n", e.what());
    return 2;
  }
  int count = static_cast<int>(rest.size());
  benchmark::Initialize(&count, rest.data());
  if (benchmark::ReportUnrecognizedArguments(count, rest.data())) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
