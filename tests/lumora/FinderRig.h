// A finder on a fresh simulated air, with its events recorded and the
// standard user defaults in a temporary file (every disconnection reads and
// may write "DisconnectFlag").
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Foundation/Dispatch.h"
#include "Foundation/NSUserDefaults.h"
#include "Lumora/TQBleFinder.h"
#include "backends/sim/Air.h"
#include "support/FinderRecorder.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace lumora::test {

using namespace std::chrono_literals;

inline const CBUUID kMajorUUID = CBUUID::UUIDWithString("B0702882-A295-A8AB-F734-031A98A512DE");
inline const CBUUID kMinorUUID = CBUUID::UUIDWithString("B0702883-A295-A8AB-F734-031A98A512DE");
inline const CBUUID kWriteUUID = CBUUID::UUIDWithString("FF0C");
inline const CBUUID kReadUUID = CBUUID::UUIDWithString("FFCC");
inline const Bytes kReadValue{0x0A, 0x0B};

/// A service of characteristics with these UUIDs, default handlers; every
/// "FFCC" holds kReadValue.
inline sim::ServiceSpec service(std::vector<CBUUID> characteristics,
                                CBUUID uuid = CBUUID::UUIDWithString("FFC0")) {
  sim::ServiceSpec result{.uuid = uuid};
  for (const auto& c : characteristics) {
    result.characteristics.push_back({.uuid = c, .value = c == kReadUUID ? kReadValue : Bytes{}});
  }
  return result;
}

/// A connectable device advertising `name` with these services.
inline sim::DeviceConfig beaconDevice(std::optional<std::string> name,
                                      std::vector<sim::ServiceSpec> services) {
  return {.localName = std::move(name), .connectable = true, .services = std::move(services)};
}

class FinderRig {
 public:
  explicit FinderRig(sim::AirOptions options = {}) {
    air = sim::Air::create(options);
    radio::Backend::setCurrent(air);
    NSUserDefaults::setStandardPath(defaultsDir.file("defaults.json"));
    NSUserDefaults::resetStandardUserDefaults();
    finder = std::make_shared<TQBleFinder>();
    finder->setDelegate(&recorder);
    finder->initTQFinder();
  }

  ~FinderRig() {
    finder.reset();
    air->settle();
    radio::Backend::setCurrent(nullptr);
    NSUserDefaults::setStandardPath({});
    NSUserDefaults::resetStandardUserDefaults();
  }

  FinderRig(const FinderRig&) = delete;
  FinderRig& operator=(const FinderRig&) = delete;

  /// Connects by name and lets the air run until discovery has settled.
  void connect(const std::string& name) {
    finder->TQBeacon_Connect(name);
    air->advance(1s);
  }

  /// The stored flag, read afresh from the file as a new process would.
  std::optional<Object> storedFlag() const {
    NSUserDefaults::resetStandardUserDefaults();
    return NSUserDefaults::standardUserDefaults()->objectForKey(TQDisconnectFlagKey);
  }

  void setFlag(std::optional<Object> value) {
    NSUserDefaults::standardUserDefaults()->setObject(std::move(value), TQDisconnectFlagKey);
  }

  TempDir defaultsDir;
  LogCapture log;
  std::shared_ptr<sim::Air> air;
  FinderRecorder recorder;
  std::shared_ptr<TQBleFinder> finder;
};

}  // namespace lumora::test
