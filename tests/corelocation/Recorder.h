// A delegate that keeps every ranging callback it receives.
#pragma once

#include <functional>
#include <vector>

#include "CoreLocation/CLLocationManager.h"
#include "Foundation/Dispatch.h"

namespace lumora::test {

class RangingRecorder : public CLLocationManagerDelegate {
 public:
  struct Call {
    CLLocationManager* manager = nullptr;
    CLBeaconList beacons;
    std::shared_ptr<CLBeaconRegion> region;
    bool onMainThread = false;
  };

  void didRangeBeacons(const std::shared_ptr<CLLocationManager>& manager,
                       const CLBeaconList& beacons,
                       const std::shared_ptr<CLBeaconRegion>& region) override {
    calls.push_back({manager.get(), beacons, region, isMainThread()});
    if (onCall) onCall(calls.back());
  }
  void rangingBeaconsDidFailForRegion(const std::shared_ptr<CLLocationManager>&,
                                      const std::shared_ptr<CLBeaconRegion>&, ErrorRef) override {
    ++failures;
  }

  std::vector<Call> callsFor(const std::shared_ptr<CLBeaconRegion>& region) const {
    std::vector<Call> out;
    for (const Call& call : calls)
      if (call.region == region) out.push_back(call);
    return out;
  }

  std::vector<Call> calls;
  int failures = 0;
  std::function<void(const Call&)> onCall;
};

}  // namespace lumora::test
