// The BlueZ radio's translations of what arrives from the bus: Device1
// property dictionaries of any shape (each property of any decoded type),
// object paths, error names and messages, characteristic flags. Each result
// is checked against what the translation promises, not just survived.
#include <fuzzer/FuzzedDataProvider.h>
#include <strings.h>

#include <cctype>
#include <cstdio>

#include "Check.h"
#include "backends/bluez/Mapping.h"

using namespace lumora;
using namespace lumora::bluez;

namespace {

const char* const kKeys[] = {"Name",    "Alias",       "Address", "ManufacturerData", "UUIDs",
                             "TxPower", "ServiceData", "RSSI",    "Connected",        "Paired"};

bool continuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

std::string text(FuzzedDataProvider& in) {
  // Now and then something shaped like what BlueZ sends.
  switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0:
      return "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
    case 1:
      return "C0-FF-EE-00-00-0" + std::to_string(in.ConsumeIntegralInRange(0, 9));
    default:
      return in.ConsumeRandomLengthString(48);
  }
}

dbus::Value value(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange(0, 7)) {
    case 0:
      return std::monostate{};
    case 1:
      return in.ConsumeBool();
    case 2:
      return in.ConsumeIntegral<std::int64_t>();
    case 3:
      return text(in);
    case 4: {
      std::vector<std::string> list(in.ConsumeIntegralInRange(0, 6));
      for (auto& item : list) item = text(in);
      return list;
    }
    case 5:
      return in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange(0, 40));
    case 6: {
      std::map<std::uint16_t, Bytes> companies;
      for (int n = in.ConsumeIntegralInRange(0, 3); n > 0; --n)
        companies[in.ConsumeIntegral<std::uint16_t>()] =
            in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange(0, 40));
      return companies;
    }
    default: {
      std::map<std::string, Bytes> services;
      for (int n = in.ConsumeIntegralInRange(0, 3); n > 0; --n)
        services[text(in)] = in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange(0, 20));
      return services;
    }
  }
}

void checkAdvertisement(FuzzedDataProvider& in) {
  dbus::Props device;
  for (int n = in.ConsumeIntegralInRange(0, 8); n > 0; --n) {
    const std::string key =
        in.ConsumeBool() ? kKeys[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kKeys) - 1)]
                         : in.ConsumeRandomLengthString(12);
    device[key] = value(in);
  }
  const CBAdvertisementData ad = advertisementFromDevice(device);

  if (const auto* name = dbus::get<std::string>(device, "Name")) FUZZ_CHECK(ad.localName == *name);
  if (const auto* companies = dbus::get<std::map<std::uint16_t, Bytes>>(device, "ManufacturerData");
      companies && !companies->empty()) {
    const auto& [company, payload] = *companies->begin();
    FUZZ_CHECK(ad.manufacturerData && ad.manufacturerData->size() == payload.size() + 2);
    FUZZ_CHECK(((*ad.manufacturerData)[0] | ((*ad.manufacturerData)[1] << 8)) == company);
  } else {
    FUZZ_CHECK(!ad.manufacturerData);
  }
  const auto* uuids = dbus::get<std::vector<std::string>>(device, "UUIDs");
  FUZZ_CHECK(ad.serviceUUIDs.size() <= (uuids ? uuids->size() : 0));
  if (ad.txPowerLevel) FUZZ_CHECK(*ad.txPowerLevel >= -127 && *ad.txPowerLevel <= 127);

  // Whatever was heard can be advertised again, within the legacy budget.
  const auto planned = planAdvertisement(ad);
  if (const auto* plan = std::get_if<AdvertisementPlan>(&planned)) {
    FUZZ_CHECK(plan->dataLength <= kAdvertisingDataBudget);
    if (plan->localName) {
      const std::string& cut = *plan->localName;
      FUZZ_CHECK(cut.size() <= kLocalNameBudget && ad.localName->starts_with(cut));
      // No sequence split; a name of nothing but continuation bytes (not
      // UTF-8 at all) is cut to nothing.
      FUZZ_CHECK(cut.empty() || cut.size() == ad.localName->size() ||
                 !continuation((*ad.localName)[cut.size()]));
    }
    if (plan->company) {
      Bytes rebuilt{static_cast<std::uint8_t>(*plan->company),
                    static_cast<std::uint8_t>(*plan->company >> 8)};
      rebuilt.insert(rebuilt.end(), plan->manufacturerPayload.begin(),
                     plan->manufacturerPayload.end());
      FUZZ_CHECK(ad.manufacturerData == rebuilt);
    }
  } else {
    FUZZ_CHECK(std::get<Error>(planned).domain == CBErrorDomain);
  }
}

void checkPaths(FuzzedDataProvider& in) {
  const std::string path = in.ConsumeRandomLengthString(64);
  const std::string prefix = in.ConsumeBool() ? "char" : "service";
  if (const auto handle = handleFromPath(path, prefix)) {
    char expected[8];
    std::snprintf(expected, sizeof expected, "%04x", *handle);
    const std::string tail = path.substr(path.size() - 4);
    FUZZ_CHECK(strcasecmp(tail.c_str(), expected) == 0);
  }
  const std::string address = addressFromDevicePath(path);
  FUZZ_CHECK(address.empty() || address.size() == 17);

  // An address BlueZ could report survives the trip through its device path.
  std::string candidate;
  for (int i = 0; i < 6; ++i) {
    char pair[4];
    std::snprintf(pair, sizeof pair, i ? ":%02x" : "%02x", in.ConsumeIntegral<std::uint8_t>());
    candidate += pair;
  }
  const std::string adapter = "/org/bluez/hci" + std::to_string(in.ConsumeIntegralInRange(0, 3));
  const std::string device = devicePath(adapter, candidate);
  FUZZ_CHECK(isBelow(device, adapter));
  std::string upper = candidate;
  for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  FUZZ_CHECK(addressFromDevicePath(device) == upper);
}

void checkErrorsAndFlags(FuzzedDataProvider& in) {
  const dbus::CallError call{in.ConsumeBool() ? "org.bluez.Error.Failed" : text(in), text(in)};
  const Error client = clientError(call, in.ConsumeBool());
  FUZZ_CHECK(client.domain == CBErrorDomain || client.domain == CBATTErrorDomain);
  if (client.domain == CBATTErrorDomain) FUZZ_CHECK(client.code > 0 && client.code <= 0xFF);
  FUZZ_CHECK(connectError(call).domain == CBErrorDomain);

  const auto result = static_cast<CBATTError>(in.ConsumeIntegral<std::uint8_t>());
  const auto server = serverError(result);
  FUZZ_CHECK(server.has_value() == (result != CBATTError::Success));
  if (server) FUZZ_CHECK(server->name.starts_with("org.bluez.Error."));

  const auto properties = in.ConsumeIntegral<std::uint8_t>();
  const auto permissions = in.ConsumeIntegral<std::uint8_t>();
  FUZZ_CHECK(characteristicProperties(characteristicFlags(properties, permissions)) == properties);
  std::vector<std::string> flags(in.ConsumeIntegralInRange(0, 4));
  for (auto& flag : flags) flag = in.ConsumeRandomLengthString(24);
  (void)characteristicProperties(flags);

  AdapterView view;
  view.busOpen = in.ConsumeBool();
  view.daemonPresent = in.ConsumeBool();
  view.daemonWasLost = in.ConsumeBool();
  view.accessDenied = in.ConsumeBool();
  view.adapterPresent = in.ConsumeBool();
  view.powered = in.ConsumeBool();
  if (in.ConsumeBool()) view.roles = std::vector<std::string>{"central", text(in)};
  view.advertisingManager = in.ConsumeBool();
  view.gattManager = in.ConsumeBool();
  // The peripheral role never claims more than the central one.
  if (peripheralState(view) == CBManagerState::PoweredOn)
    FUZZ_CHECK(centralState(view) == CBManagerState::PoweredOn);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  checkAdvertisement(in);
  checkPaths(in);
  checkErrorsAndFlags(in);
  return 0;
}
