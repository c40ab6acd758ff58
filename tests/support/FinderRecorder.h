// A TQBleFinderDelegate that records everything the finder tells it, in
// order, noting whether each call arrived on the main thread.
//
//   lumora::test::FinderRecorder recorder;
//   finder->setDelegate(&recorder);
//   ... drive the air ...
//   EXPECT_THAT(recorder.states(), ElementsAre(State{90, "TQBeacon Conneting..."}, ...));
//
// Thread-safe: calls may arrive on any thread. The optional hook runs after
// the call is recorded, on the calling thread, with no lock held, so it may
// call back into the finder.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "Lumora/TQBleFinder.h"

namespace lumora::test {

/// One didstate() call: code and message (compared together in tests).
struct State {
  std::int32_t code = 0;
  std::string message;
  friend bool operator==(const State&, const State&) = default;
  friend std::ostream& operator<<(std::ostream& os, const State& s) {
    return os << s.code << " \"" << s.message << "\"";
  }
};

/// The status events the finder sends, as the recorder records them.
inline const State kConneting{90, "TQBeacon Conneting..."};
inline const State kDisconnected{90, "TQBeacon Disconnected"};
inline const State kReadData{90, "TQBeacon ReadData"};
inline const State kStartScan{90, "Start Scan peripherals"};
inline const State kStopScan{90, "Stop Scan peripherals"};
inline const State kConnectPeripheral{50, "Connect Peripheral"};
inline const State kDidDisconnect{51, "didDisconnectPeripheral"};
inline const State kLost{90, "beacon connection lost"};
inline const State kRecv{80, "BLE RECV DATA"};

/// One delegate call of either kind.
struct FinderEvent {
  enum class Kind { State, Beacons };
  Kind kind = Kind::State;
  // Kind::State
  std::int32_t code = 0;
  std::string message;
  Data data;
  // Kind::Beacons
  CLBeaconList beacons;
  std::shared_ptr<CLBeaconRegion> region;
  // Whether the call arrived on the main thread.
  bool onMainThread = false;
};

class FinderRecorder : public TQBleFinderDelegate {
 public:
  using Hook = std::function<void(const FinderEvent&)>;

  void didDiscoverBeacon(const CLBeaconList& beacons,
                         const std::shared_ptr<CLBeaconRegion>& inRegion) override;
  void didstate(std::int32_t state, const std::string& Msg, const Data& data) override;

  /// Runs after every recorded call (see the header notes).
  void setHook(Hook hook);

  std::vector<FinderEvent> events() const;
  /// The didstate() calls only, as code and message.
  std::vector<State> states() const;
  /// The data of the didstate() calls with `code`, in order.
  std::vector<Data> dataOf(std::int32_t code) const;
  /// The didDiscoverBeacon() calls only.
  std::vector<FinderEvent> beaconEvents() const;
  /// How many didstate() calls carried exactly this code and message.
  std::size_t count(std::int32_t code, const std::string& message) const;
  void clear();

 private:
  void record(FinderEvent event);

  mutable std::mutex mutex_;
  std::vector<FinderEvent> events_;
  Hook hook_;
};

}  // namespace lumora::test
