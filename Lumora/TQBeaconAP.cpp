#include "Lumora/TQBeaconAP.h"

#include "Foundation/Dispatch.h"

namespace lumora {

// The reference is an ordinary writable global (the text it points at is
// constant): the framework exports it in that form.
const char* BeaconIdentifier = "io.lumora.lumora";

namespace {

constexpr const char* kProximityUUIDs[] = {
    "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0",
    "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5",
    "74278BDA-B644-4520-8F0C-720EAF059935",
};

constexpr std::int32_t kDefaultPower = -59;  // dBm at one metre

}  // namespace

std::shared_ptr<TQBeaconAP> TQBeaconAP::sharedDefaults() {
  // Built once for the life of the process; threads that arrive while it is
  // being built wait for it rather than building a second one.
  static dispatch_once_t once;
  static std::shared_ptr<TQBeaconAP> shared;
  dispatch_once(once, [] { shared = std::make_shared<TQBeaconAP>()->init(); });
  return shared;
}

std::shared_ptr<TQBeaconAP> TQBeaconAP::init() {
  std::vector<Uuid> uuids;
  uuids.reserve(std::size(kProximityUUIDs));
  for (const char* text : kProximityUUIDs) uuids.push_back(*Uuid::fromString(text));
  supportedProximityUUIDs_ = std::move(uuids);
  defaultPower_ = Number::numberWithInt(kDefaultPower);
  return weak_from_this().lock();
}

std::optional<Uuid> TQBeaconAP::defaultProximityUUID() const {
  if (supportedProximityUUIDs_.empty()) return std::nullopt;
  return supportedProximityUUIDs_.front();
}

}  // namespace lumora
