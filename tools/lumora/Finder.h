// The central side of the tool: a finder that also counts write answers,
// the delegate that prints its status events and ranged beacons, and the
// steps of a connection (connect, send, read, disconnect) that `connect` and
// `demo` share.
//
// Everything here runs on the main thread: the finder's manager has no queue
// of its own, so its callbacks arrive on the main queue that the tool's waits
// run.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "CoreBluetooth/CBCentralManager.h"
#include "Lumora/TQBleFinder.h"
#include "Session.h"

namespace lumora::tool {

class Output;

/// A finder that also tells the tool when each write has been answered:
/// the library reports writes only on its log, and `connect` must not
/// disconnect before the device has taken the bytes.
class ToolFinder : public TQBleFinder {
 public:
  void didWriteValueForCharacteristic(const std::shared_ptr<CBPeripheral>& peripheral,
                                      const std::shared_ptr<CBCharacteristic>& characteristic,
                                      ErrorRef error) override;
  int writeAnswers() const { return writeAnswers_; }
  /// Text of the last write answered with an error.
  const std::optional<std::string>& lastWriteError() const { return lastWriteError_; }

 private:
  int writeAnswers_ = 0;
  std::optional<std::string> lastWriteError_;
};

/// Measured powers heard in iBeacon advertisements, by beacon identity: a
/// CLBeacon carries no measured power, and the distance estimate needs it.
class PowerBook : public CBCentralManagerDelegate, public std::enable_shared_from_this<PowerBook> {
 public:
  /// Starts a scan (duplicates folded) on the current radio.
  static std::shared_ptr<PowerBook> start();
  void stop();
  /// The power advertised by this beacon, if one was heard.
  std::optional<int> power(const Uuid& uuid, std::uint16_t major, std::uint16_t minor) const;

  void centralManagerDidUpdateState(const std::shared_ptr<CBCentralManager>& central) override;
  void didDiscoverPeripheral(const std::shared_ptr<CBCentralManager>& central,
                             const std::shared_ptr<CBPeripheral>& peripheral,
                             const CBAdvertisementData& advertisementData,
                             const Number& RSSI) override;
  void didConnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                            const std::shared_ptr<CBPeripheral>&) override {}
  void didFailToConnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                                  const std::shared_ptr<CBPeripheral>&, ErrorRef) override {}
  void didDisconnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                               const std::shared_ptr<CBPeripheral>&, ErrorRef) override {}

 private:
  using Identity = std::tuple<Uuid, std::uint16_t, std::uint16_t>;
  std::shared_ptr<CBCentralManager> manager_;
  std::map<Identity, int> powers_;
};

/// Prints ranged beacons with their distance estimate.
class BeaconPrinter {
 public:
  /// `source` names the printer's side in the demo ("" elsewhere).
  BeaconPrinter(Output& out, std::shared_ptr<PowerBook> powers, std::string indent = {});
  void print(const CLBeaconList& beacons, const std::shared_ptr<CLBeaconRegion>& region);
  /// Distinct beacon identities printed so far.
  std::size_t seen() const { return seen_.size(); }

 private:
  Output& out_;
  std::shared_ptr<PowerBook> powers_;
  std::string indent_;
  std::set<std::tuple<Uuid, std::uint16_t, std::uint16_t>> seen_;
};

/// One status event as the finder sent it.
struct StatusEvent {
  std::int32_t code;
  std::string message;
  Data data;
};

/// The finder's delegate: prints every status event as it arrives and keeps
/// it, and hands ranged beacons to a BeaconPrinter.
class StatusLog : public TQBleFinderDelegate {
 public:
  /// `indent` and `source` dress the lines in the demo ("" elsewhere).
  StatusLog(Output& out, BeaconPrinter* beacons, std::string indent = {}, std::string source = {});
  void didDiscoverBeacon(const CLBeaconList& beacons,
                         const std::shared_ptr<CLBeaconRegion>& inRegion) override;
  void didstate(std::int32_t state, const std::string& Msg, const Data& data) override;

  const std::vector<StatusEvent>& events() const { return events_; }
  /// How many events equal to `event` arrived from index `from` on.
  std::size_t count(const TQStatusEvent& event, std::size_t from = 0) const;

 private:
  Output& out_;
  BeaconPrinter* beacons_;
  std::string indent_;
  std::string source_;
  std::vector<StatusEvent> events_;
};

/// The steps of a connection, each waiting on the run loop until the
/// finder has done it, the limit passes or Ctrl-C. After a step is done,
/// whatever the radio has already delivered (a notification sent together
/// with a write's answer) is run before the next step begins, so the events
/// print in the order the device sent them.
class Link {
 public:
  Link(Session& session, std::shared_ptr<ToolFinder> finder, StatusLog& log);

  /// TQBeacon_Connect(name), then waits for 50 "Connect Peripheral" and for
  /// the discovery of every service's characteristics.
  bool connect(const std::string& name, std::optional<Seconds> limit);
  /// TQBeacon_SendData, then waits until every "FF0C" write is answered.
  bool send(const Bytes& bytes, std::optional<Seconds> limit);
  /// TQBeacon_ReqReadData, then waits for the 80 "BLE RECV DATA" of every
  /// "FFCC" read (true at once when the device has none).
  bool read(std::optional<Seconds> limit);
  /// Stores `quiet` under "DisconnectFlag", TQBeacon_Disconnect, then waits
  /// for 51 "didDisconnectPeripheral".
  bool disconnect(bool quiet, std::optional<Seconds> limit, bool evenAfterCtrlC = false);
  /// Waits for a drop that someone else causes: 51 (and with it 90 "beacon
  /// connection lost" when the flag is not set).
  bool waitForDrop(std::optional<Seconds> limit);
  /// True while 51 has not been seen since the last connect().
  bool up() const;

 private:
  // Runs what is ready on the main run loop; passes `ok` through.
  bool settle(bool ok);

  Session& session_;
  std::shared_ptr<ToolFinder> finder_;
  StatusLog& log_;
  std::size_t connectedAt_ = 0;
};

/// Notes on stderr why ranging may stay silent (adapter off, location
/// access refused).
void warnAboutRanging(Output& out);

/// True once the peripheral's services and every service's characteristics
/// have been discovered.
bool discoveryComplete(const std::shared_ptr<CBPeripheral>& peripheral);
/// Characteristics with this UUID over all discovered services.
int countCharacteristics(const std::shared_ptr<CBPeripheral>& peripheral, const CBUUID& uuid);

}  // namespace lumora::tool
