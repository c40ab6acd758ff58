#include "CoreBluetooth/CBAdvertisementData.h"

namespace lumora {

const std::string CBAdvertisementDataLocalNameKey = "kCBAdvDataLocalName";
const std::string CBAdvertisementDataManufacturerDataKey = "kCBAdvDataManufacturerData";
const std::string CBAdvertisementDataServiceUUIDsKey = "kCBAdvDataServiceUUIDs";
const std::string CBAdvertisementDataTxPowerLevelKey = "kCBAdvDataTxPowerLevel";
const std::string CBAdvertisementDataIsConnectable = "kCBAdvDataIsConnectable";

const std::string CBCentralManagerScanOptionAllowDuplicatesKey = "kCBScanOptionAllowDuplicates";

std::optional<Object> CBAdvertisementData::objectForKey(std::string_view key) const {
  // Built in place: GCC 12 warns falsely about moving a variant into an
  // optional at low optimisation levels.
  std::optional<Object> found;
  if (key == CBAdvertisementDataLocalNameKey) {
    if (localName) found.emplace(std::in_place_type<std::string>, *localName);
  } else if (key == CBAdvertisementDataManufacturerDataKey) {
    if (manufacturerData) found.emplace(std::in_place_type<Bytes>, *manufacturerData);
  } else if (key == CBAdvertisementDataTxPowerLevelKey) {
    if (txPowerLevel) found.emplace(std::in_place_type<Number>, *txPowerLevel);
  } else if (key == CBAdvertisementDataIsConnectable) {
    if (isConnectable) found.emplace(std::in_place_type<Number>, *isConnectable);
  }
  return found;
}

bool CBAdvertisementData::setObject(const Object& value, std::string_view key) {
  if (key == CBAdvertisementDataLocalNameKey) {
    if (const auto* text = std::get_if<std::string>(&value)) {
      localName = *text;
      return true;
    }
  } else if (key == CBAdvertisementDataManufacturerDataKey) {
    if (const auto* bytes = std::get_if<Bytes>(&value)) {
      manufacturerData = *bytes;
      return true;
    }
  } else if (key == CBAdvertisementDataTxPowerLevelKey) {
    if (const auto* number = std::get_if<Number>(&value)) {
      txPowerLevel = number->intValue();
      return true;
    }
  } else if (key == CBAdvertisementDataIsConnectable) {
    if (const auto* number = std::get_if<Number>(&value)) {
      isConnectable = number->boolValue();
      return true;
    }
  }
  return false;
}

}  // namespace lumora
