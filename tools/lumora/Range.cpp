// `lumora range`: ranges beacon regions through a TQBleFinder and prints
// every beacon of every ranging result with its distance estimate.
#include <fmt/format.h>

#include "Commands.h"
#include "CoreLocation/CLLocationManager.h"
#include "Finder.h"
#include "Lumora/Lumora.h"
#include "Output.h"
#include "Text.h"
#include "backends/Radio.h"

namespace lumora::tool {

namespace {

TQBleFinder::RegionList regionsFor(const RangeOptions& options) {
  TQBleFinder::RegionList regions;
  if (!options.uuid.empty()) {
    const Uuid uuid = parseUuidArgument(options.uuid, "--uuid");
    std::optional<std::uint16_t> major, minor;
    if (options.major) major = static_cast<std::uint16_t>(*options.major);
    if (options.minor) minor = static_cast<std::uint16_t>(*options.minor);
    regions.push_back(std::make_shared<CLBeaconRegion>(uuid, major, minor, uuid.UUIDString()));
    return regions;
  }
  for (const auto& uuid : TQBeaconAP::sharedDefaults()->supportedProximityUUIDs()) {
    regions.push_back(std::make_shared<CLBeaconRegion>(
        uuid, std::optional<std::uint16_t>{}, std::optional<std::uint16_t>{}, uuid.UUIDString()));
  }
  return regions;
}

}  // namespace

void warnAboutRanging(Output& out) {
  const auto state = radio::Backend::current()->adapterState();
  if (state != CBManagerState::PoweredOn) {
    out.note(
        fmt::format("Bluetooth is {}: nothing can be ranged until it powers on", stateName(state)));
  }
  const auto status = CLLocationManager::authorizationStatus();
  if (status == CLAuthorizationStatus::Denied || status == CLAuthorizationStatus::Restricted) {
    out.note("location access is not authorized: ranging will report nothing");
  }
}

int runRange(Session& session, const RangeOptions& options) {
  const auto regions = regionsFor(options);
  session.openRadio();
  Output& out = session.out();
  warnAboutRanging(out);

  auto powers = PowerBook::start();
  BeaconPrinter printer(out, powers);
  StatusLog log(out, &printer);
  auto finder = std::make_shared<ToolFinder>();
  finder->setDelegate(&log);
  finder->initTQFinder();
  finder->StartTQFinder(regions);

  std::optional<Seconds> limit;
  if (options.seconds) limit = Seconds(*options.seconds);
  const Deadline deadline(limit);
  const Progress progress(out, [&] {
    return fmt::format("ranging {} region{}: {}, {} beacon{} seen", regions.size(),
                       regions.size() == 1 ? "" : "s", deadline.describe(), printer.seen(),
                       printer.seen() == 1 ? "" : "s");
  });
  session.runFor(limit);
  out.stopProgress();

  finder->StopTQFinder();
  finder->setDelegate(nullptr);
  powers->stop();
  if (printer.seen() == 0 &&
      radio::Backend::current()->adapterState() != CBManagerState::PoweredOn) {
    throw Failure(fmt::format("Bluetooth is {}: nothing was ranged",
                              stateName(radio::Backend::current()->adapterState())));
  }
  return 0;
}

}  // namespace lumora::tool
