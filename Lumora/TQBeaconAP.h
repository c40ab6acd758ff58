// The process-wide beacon defaults.
//
//   auto ap = lumora::TQBeaconAP::sharedDefaults();
//   lumora::Uuid uuid = *ap->defaultProximityUUID();   // E2C56DB5-DFFB-48D2-B060-D0F5A71096E0
//   int power = ap->defaultPower()->intValue();        // -59
//
// Thread-safe: sharedDefaults() creates the object exactly once even when
// several threads ask first, and the object never changes after init().
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "Foundation/Number.h"
#include "Foundation/Uuid.h"

namespace lumora {

/// The framework's bundle identifier; names the beacon region the emulator
/// advertises. A writable global holding a constant text.
extern const char* BeaconIdentifier;

class TQBeaconAP : public std::enable_shared_from_this<TQBeaconAP> {
 public:
  /// Plain construction: every property empty until init().
  TQBeaconAP() = default;

  /// The one shared object, built with make_shared + init() on first use.
  static std::shared_ptr<TQBeaconAP> sharedDefaults();

  /// Fills the three UUIDs and the default power; returns this object (null
  /// only if the object was not made by make_shared).
  std::shared_ptr<TQBeaconAP> init();

  /// E2C56DB5-DFFB-48D2-B060-D0F5A71096E0, 5A4BCFCE-174E-4BAC-A814-092E77F6B7E5,
  /// 74278BDA-B644-4520-8F0C-720EAF059935, in this order.
  std::vector<Uuid> supportedProximityUUIDs() const { return supportedProximityUUIDs_; }
  /// Element 0 of supportedProximityUUIDs (null before init()).
  std::optional<Uuid> defaultProximityUUID() const;
  /// -59 (dBm at one metre), made from the integer.
  std::optional<Number> defaultPower() const { return defaultPower_; }

 private:
  std::vector<Uuid> supportedProximityUUIDs_;
  std::optional<Number> defaultPower_;
};

}  // namespace lumora
