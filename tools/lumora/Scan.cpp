// `lumora scan`: every advertising device once (duplicates folded), with its
// name, address, RSSI and, when its manufacturer data is one, the iBeacon.
#include <fmt/format.h>

#include <set>

#include "Commands.h"
#include "CoreBluetooth/CBCentralManager.h"
#include "Lumora/TQBleFinder.h"
#include "Output.h"
#include "Text.h"

namespace lumora::tool {

using json = Json;

namespace {

class ScanPrinter : public CBCentralManagerDelegate {
 public:
  explicit ScanPrinter(Output& out) : out_(out) {}

  void centralManagerDidUpdateState(const std::shared_ptr<CBCentralManager>& central) override {
    state_ = central->state();
    if (state_ == CBManagerState::PoweredOn) {
      poweredOn_ = true;
      central->scanForPeripheralsWithServices(
          std::nullopt, Dictionary{{CBCentralManagerScanOptionAllowDuplicatesKey, Number(false)}});
      return;
    }
    out_.note(fmt::format("Bluetooth is {}; waiting for it to power on", stateName(*state_)));
  }

  void didDiscoverPeripheral(const std::shared_ptr<CBCentralManager>&,
                             const std::shared_ptr<CBPeripheral>& peripheral,
                             const CBAdvertisementData& ad, const Number& RSSI) override {
    const std::string address = peripheral ? peripheral->address() : std::string();
    addresses_.insert(address);
    const std::optional<std::string> name = ad.localName;

    std::string text = fmt::format("{}  {} dBm  {}", printable(address), RSSI.intValue(),
                                   name ? "\"" + printable(*name) + "\"" : "(no name)");
    json record{
        {"event", "advertisement"},
        {"address", jsonSafe(address)},
        {"name", name ? json(jsonSafe(*name)) : json(nullptr)},
        {"rssi", RSSI.intValue()},
        {"connectable", ad.isConnectable ? json(*ad.isConnectable) : json(nullptr)},
        {"manufacturerData", ad.manufacturerData ? json(hex(*ad.manufacturerData)) : json(nullptr)},
        {"ibeacon", nullptr}};
    if (ad.isConnectable && *ad.isConnectable) text += "  connectable";
    if (TQBleFinder::advDataIsBeacon(ad.manufacturerData)) {
      if (auto info = TQBleFinder::getBeaconInfoFromData(ad.manufacturerData)) {
        text += fmt::format("  iBeacon {} major {} minor {} power {}", info->uuid.view(),
                            info->major.unsignedShortValue(), info->minor.unsignedShortValue(),
                            info->power.intValue());
        record["ibeacon"] = json{{"uuid", info->uuid.str()},
                                 {"major", info->major.unsignedShortValue()},
                                 {"minor", info->minor.unsignedShortValue()},
                                 {"power", info->power.intValue()}};
      }
    }
    out_.emit(text, record);
  }

  void didConnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                            const std::shared_ptr<CBPeripheral>&) override {}
  void didFailToConnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                                  const std::shared_ptr<CBPeripheral>&, ErrorRef) override {}
  void didDisconnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                               const std::shared_ptr<CBPeripheral>&, ErrorRef) override {}

  std::size_t devices() const { return addresses_.size(); }
  bool everPoweredOn() const { return poweredOn_; }
  std::optional<CBManagerState> state() const { return state_; }

 private:
  Output& out_;
  std::set<std::string> addresses_;
  bool poweredOn_ = false;
  std::optional<CBManagerState> state_;
};

}  // namespace

int runScan(Session& session, const ScanOptions& options) {
  session.openRadio();
  Output& out = session.out();
  auto printer = std::make_shared<ScanPrinter>(out);
  auto manager = CBCentralManager::initWithDelegate(printer, nullptr);

  std::optional<Seconds> limit;
  if (options.seconds) limit = Seconds(*options.seconds);
  const Deadline deadline(limit);
  const Progress progress(out, [&] {
    return fmt::format("scanning: {}, {} device{} seen", deadline.describe(), printer->devices(),
                       printer->devices() == 1 ? "" : "s");
  });
  session.runFor(limit);
  out.stopProgress();
  manager->stopScan();
  manager.reset();

  if (!printer->everPoweredOn()) {
    throw Failure(fmt::format(
        "Bluetooth never powered on (state: {})",
        printer->state() ? stateName(*printer->state()) : std::string_view("not reported")));
  }
  return 0;
}

}  // namespace lumora::tool
