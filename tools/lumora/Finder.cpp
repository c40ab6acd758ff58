#include "Finder.h"

#include <fmt/format.h>

#include "CoreBluetooth/CBAdvertisementData.h"
#include "Foundation/NSUserDefaults.h"
#include "Lumora/TQBeaconAP.h"
#include "Lumora/TQBleProcess.h"
#include "Output.h"
#include "Text.h"

namespace lumora::tool {

using json = Json;

void ToolFinder::didWriteValueForCharacteristic(
    const std::shared_ptr<CBPeripheral>& peripheral,
    const std::shared_ptr<CBCharacteristic>& characteristic, ErrorRef error) {
  TQBleFinder::didWriteValueForCharacteristic(peripheral, characteristic, error);
  ++writeAnswers_;
  if (error) lastWriteError_ = error->text;
}

// --- PowerBook ---------------------------------------------------------------

std::shared_ptr<PowerBook> PowerBook::start() {
  auto book = std::make_shared<PowerBook>();
  book->manager_ = CBCentralManager::initWithDelegate(book->weak_from_this(), nullptr);
  return book;
}

void PowerBook::stop() {
  if (!manager_) return;
  manager_->stopScan();
  manager_.reset();
}

std::optional<int> PowerBook::power(const Uuid& uuid, std::uint16_t major,
                                    std::uint16_t minor) const {
  auto it = powers_.find({uuid, major, minor});
  if (it == powers_.end()) return std::nullopt;
  return it->second;
}

void PowerBook::centralManagerDidUpdateState(const std::shared_ptr<CBCentralManager>& central) {
  if (central->state() != CBManagerState::PoweredOn) return;
  central->scanForPeripheralsWithServices(
      std::nullopt, Dictionary{{CBCentralManagerScanOptionAllowDuplicatesKey, Number(false)}});
}

void PowerBook::didDiscoverPeripheral(const std::shared_ptr<CBCentralManager>&,
                                      const std::shared_ptr<CBPeripheral>&,
                                      const CBAdvertisementData& advertisementData, const Number&) {
  const Data& data = advertisementData.manufacturerData;
  if (!TQBleFinder::advDataIsBeacon(data)) return;
  auto info = TQBleFinder::getBeaconInfoFromData(data);
  if (!info) return;
  auto uuid = Uuid::fromString(info->uuid);
  if (!uuid) return;
  powers_[{*uuid, info->major.unsignedShortValue(), info->minor.unsignedShortValue()}] =
      info->power.intValue();
}

// --- BeaconPrinter -----------------------------------------------------------

BeaconPrinter::BeaconPrinter(Output& out, std::shared_ptr<PowerBook> powers, std::string indent)
    : out_(out), powers_(std::move(powers)), indent_(std::move(indent)) {}

void BeaconPrinter::print(const CLBeaconList& beacons,
                          const std::shared_ptr<CLBeaconRegion>& region) {
  for (const auto& beacon : beacons) {
    if (!beacon) continue;
    const auto uuid = beacon->proximityUUID();
    const std::uint16_t major = beacon->major().unsignedShortValue();
    const std::uint16_t minor = beacon->minor().unsignedShortValue();
    seen_.insert({uuid, major, minor});

    // The estimate needs the beacon's measured power; until its advertisement
    // has been decoded the framework's default stands in.
    std::optional<int> heard = powers_ ? powers_->power(uuid, major, minor) : std::nullopt;
    const int power = heard.value_or(TQBeaconAP::sharedDefaults()->defaultPower()->intValue());
    const auto distance = TQBleFinder::calculatedDistance(Number(power), Number(beacon->rssi()));
    const double accuracy = beacon->accuracy();

    std::string text =
        fmt::format("{}{}  major {}  minor {}  {}  accuracy {}  rssi {}  distance {}", indent_,
                    uuid.UUIDString(), major, minor, proximityName(beacon->proximity()),
                    accuracy < 0 ? std::string("unknown") : metres(accuracy), beacon->rssi(),
                    distance ? metres(distance->doubleValue()) : std::string("unknown"));
    if (!heard) text += " (power assumed)";

    json record{{"event", "beacon"},
                {"region", region ? jsonSafe(region->identifier()) : std::string()},
                {"uuid", uuid.UUIDString()},
                {"major", major},
                {"minor", minor},
                {"proximity", proximityName(beacon->proximity())},
                {"accuracy", accuracy < 0 ? json(nullptr) : json(accuracy)},
                {"rssi", beacon->rssi()},
                {"power", power},
                {"powerHeard", heard.has_value()},
                {"distance", distance ? json(distance->doubleValue()) : json(nullptr)}};
    out_.emit(text, record);
  }
}

// --- StatusLog ---------------------------------------------------------------

StatusLog::StatusLog(Output& out, BeaconPrinter* beacons, std::string indent, std::string source)
    : out_(out), beacons_(beacons), indent_(std::move(indent)), source_(std::move(source)) {}

void StatusLog::didDiscoverBeacon(const CLBeaconList& beacons,
                                  const std::shared_ptr<CLBeaconRegion>& inRegion) {
  if (beacons_) beacons_->print(beacons, inRegion);
}

void StatusLog::didstate(std::int32_t state, const std::string& Msg, const Data& data) {
  events_.push_back({state, Msg, data});
  std::string text = fmt::format("{}{} {}", indent_, state, printable(Msg));
  if (data) text += fmt::format("  data {}", data->empty() ? std::string("(empty)") : hex(*data));
  json record{{"event", "status"},
              {"code", state},
              {"message", jsonSafe(Msg)},
              {"data", data ? json(hex(*data)) : json(nullptr)}};
  if (!source_.empty()) record["source"] = source_;
  out_.emit(text, record);
}

std::size_t StatusLog::count(const TQStatusEvent& event, std::size_t from) const {
  std::size_t n = 0;
  for (std::size_t i = from; i < events_.size(); ++i) {
    if (events_[i].code == event.code && events_[i].message == event.message) ++n;
  }
  return n;
}

// --- Link --------------------------------------------------------------------

bool discoveryComplete(const std::shared_ptr<CBPeripheral>& peripheral) {
  if (!peripheral) return false;
  auto services = peripheral->services();
  if (!services) return false;
  for (const auto& service : *services) {
    if (service && !service->characteristics()) return false;
  }
  return true;
}

int countCharacteristics(const std::shared_ptr<CBPeripheral>& peripheral, const CBUUID& uuid) {
  if (!peripheral) return 0;
  auto services = peripheral->services();
  if (!services) return 0;
  int n = 0;
  for (const auto& service : *services) {
    if (!service) continue;
    auto characteristics = service->characteristics();
    if (!characteristics) continue;
    for (const auto& c : *characteristics) {
      if (c && c->UUID() == uuid) ++n;
    }
  }
  return n;
}

Link::Link(Session& session, std::shared_ptr<ToolFinder> finder, StatusLog& log)
    : session_(session), finder_(std::move(finder)), log_(log) {}

bool Link::connect(const std::string& name, std::optional<Seconds> limit) {
  const Deadline deadline(limit);
  const std::size_t from = log_.events().size();
  finder_->TQBeacon_Connect(name);
  const bool linked =
      session_.waitUntil([&] { return log_.count(TQStatus::ConnectPeripheral, from) > 0; }, limit);
  if (!linked) return false;
  connectedAt_ = log_.events().size();
  return settle(
      session_.waitUntil([&] { return !up() || discoveryComplete(finder_->peripheral()); },
                         deadline.left()) &&
      up());
}

bool Link::send(const Bytes& bytes, std::optional<Seconds> limit) {
  const int targets = countCharacteristics(
      finder_->peripheral(), CBUUID::UUIDWithString(TQBleProcessWriteCharacteristicUUID));
  const int before = finder_->writeAnswers();
  finder_->TQBeacon_SendData(bytes);
  if (targets == 0) {
    session_.out().note("the device has no FF0C characteristic: nothing was written");
    return true;
  }
  return settle(session_.waitUntil(
                    [&] { return !up() || finder_->writeAnswers() >= before + targets; }, limit) &&
                up());
}

bool Link::read(std::optional<Seconds> limit) {
  const int targets = countCharacteristics(
      finder_->peripheral(), CBUUID::UUIDWithString(TQBleProcessReadCharacteristicUUID));
  const std::size_t from = log_.events().size();
  finder_->TQBeacon_ReqReadData();
  if (targets == 0) {
    session_.out().note("the device has no FFCC characteristic: nothing was read");
    return true;
  }
  return settle(session_.waitUntil(
                    [&] {
                      return !up() || log_.count(TQStatus::RecvData, from) >=
                                          static_cast<std::size_t>(targets);
                    },
                    limit) &&
                up());
}

bool Link::disconnect(bool quiet, std::optional<Seconds> limit, bool evenAfterCtrlC) {
  // The tool sets the flag either way, so that a flag left true by an
  // interrupted run cannot turn this disconnection quiet.
  NSUserDefaults::standardUserDefaults()->setObject(Number::numberWithBool(quiet),
                                                    TQDisconnectFlagKey);
  const std::size_t from = log_.events().size();
  finder_->TQBeacon_Disconnect();
  return session_.waitUntil([&] { return log_.count(TQStatus::DidDisconnect, from) > 0; }, limit,
                            evenAfterCtrlC);
}

bool Link::waitForDrop(std::optional<Seconds> limit) {
  return session_.waitUntil([&] { return !up(); }, limit);
}

bool Link::settle(bool ok) {
  if (ok) RunLoop::main().drain();
  return ok;
}

bool Link::up() const {
  return log_.count(TQStatus::DidDisconnect, connectedAt_) == 0;
}

}  // namespace lumora::tool
