// Shared by the finder benchmarks: a finder that counts what reaches its
// discovery and write callbacks, and a log sink that drops the lines.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "Foundation/NSLog.h"
#include "Lumora/TQBleFinder.h"

namespace lumora::bench {

/// A finder that counts what reaches two of its callbacks before handling
/// them as usual.
class CountingFinder : public lumora::TQBleFinder {
 public:
  void didDiscoverPeripheral(const std::shared_ptr<lumora::CBCentralManager>& central,
                             const std::shared_ptr<lumora::CBPeripheral>& peripheral,
                             const lumora::CBAdvertisementData& advertisementData,
                             const lumora::Number& RSSI) override {
    ++discovered;
    TQBleFinder::didDiscoverPeripheral(central, peripheral, advertisementData, RSSI);
  }
  void didWriteValueForCharacteristic(
      const std::shared_ptr<lumora::CBPeripheral>& peripheral,
      const std::shared_ptr<lumora::CBCharacteristic>& characteristic,
      lumora::ErrorRef error) override {
    ++written;
    TQBleFinder::didWriteValueForCharacteristic(peripheral, characteristic, error);
  }

  std::uint64_t discovered = 0;
  std::uint64_t written = 0;
};

/// Log lines are formatted as usual but not written out.
struct QuietLog {
  QuietLog() : previous(lumora::setLogSink([](std::string_view) {})) {}
  ~QuietLog() { lumora::setLogSink(std::move(previous)); }
  lumora::LogSink previous;
};

}  // namespace lumora::bench
