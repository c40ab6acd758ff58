// Ranging: lists the beacons around us with an estimate of their distance.
//
//   ranging [SECONDS]      (default 3)
//
// The finder ranges one region per proximity UUID that Lumora knows by
// default and hands us every non-empty result, about once a second per
// region. We print each beacon as it is reported and, at the end, how many
// different beacons we heard.
//
// Without hardware this runs on the simulated air and its built-in scenario;
// LUMORA_BACKEND=bluez (or bluez:hci1) ranges with the real adapter.
#include <Foundation/RunLoop.h>
#include <Lumora/Lumora.h>
#include <backends/Radio.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <tuple>

namespace {

// The delegate: Lumora calls it on the main thread, from inside the run loop
// below, so it needs no locking of its own.
class BeaconPrinter : public lumora::TQBleFinderDelegate {
 public:
  void didDiscoverBeacon(const lumora::CLBeaconList& beacons,
                         const std::shared_ptr<lumora::CLBeaconRegion>& inRegion) override {
    for (const auto& beacon : beacons) {
      // The distance curve wants the beacon's power at one metre, which a
      // ranging result does not carry: assume the common default, -59 dBm.
      const auto metres = lumora::TQBleFinder::calculatedDistance(
          lumora::TQBeaconAP::sharedDefaults()->defaultPower(), lumora::Number(beacon->rssi()));
      const std::string uuid = beacon->proximityUUID().UUIDString();
      const unsigned major = beacon->major().unsignedShortValue();
      const unsigned minor = beacon->minor().unsignedShortValue();
      std::printf("%s  %s %u/%u  rssi %4d dBm  %-9s ", inRegion->identifier().c_str(), uuid.c_str(),
                  major, minor, beacon->rssi(), lumora::toString(beacon->proximity()));
      if (metres) {
        std::printf("about %.1f m\n", metres->doubleValue());
      } else {
        std::printf("distance unknown\n");
      }
      heard_.emplace(uuid, major, minor);
    }
  }

  // Only the connection path sends status events; ranging has none.
  void didstate(std::int32_t, const std::string&, const lumora::Data&) override {}

  std::size_t distinctBeacons() const { return heard_.size(); }

 private:
  std::set<std::tuple<std::string, unsigned, unsigned>> heard_;
};

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 3.0;
  if (!(seconds > 0 && seconds < 3600)) {
    std::fprintf(stderr, "usage: %s [SECONDS]   (0 < SECONDS < 3600)\n", argv[0]);
    return 2;
  }

  try {
    // The radio comes from LUMORA_BACKEND, else the simulated air.
    std::printf("ranging for %g s on %s\n", seconds,
                lumora::radio::Backend::current()->name().c_str());
  } catch (const lumora::radio::BackendError& e) {
    std::fprintf(stderr, "no radio: %s\n", e.what());
    return 1;
  }

  BeaconPrinter printer;
  {
    // A finder must be owned by a shared_ptr: the platform objects it creates
    // refer back to it weakly.
    auto finder = std::make_shared<lumora::TQBleFinder>();
    finder->setDelegate(&printer);
    finder->initTQFinder();

    // One region per default UUID, matching every major and minor. The
    // identifier is only a label that comes back with each result.
    lumora::TQBleFinder::RegionList regions;
    for (const auto& uuid : lumora::TQBeaconAP::sharedDefaults()->supportedProximityUUIDs()) {
      regions.push_back(std::make_shared<lumora::CLBeaconRegion>(
          uuid, "region-" + std::to_string(regions.size() + 1)));
    }
    finder->StartTQFinder(regions);

    // Results arrive while the main run loop runs.
    lumora::RunLoop::main().runFor(std::chrono::duration_cast<lumora::RunLoop::Clock::duration>(
        std::chrono::duration<double>(seconds)));

    finder->StopTQFinder();
    // The finder goes before the delegate it points to.
  }

  std::printf("ranged %zu distinct beacons\n", printer.distinctBeacons());
  return printer.distinctBeacons() > 0 ? 0 : 1;
}
