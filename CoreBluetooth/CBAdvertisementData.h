// Advertisement contents and the platform's dictionary keys for them.
//
//   CBAdvertisementData ad;
//   ad.setObject(std::string("12"), CBAdvertisementDataLocalNameKey);
//   auto name = stringValue(ad.objectForKey(CBAdvertisementDataLocalNameKey));
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CoreBluetooth/CBUUID.h"
#include "Foundation/Object.h"

namespace lumora {

extern const std::string CBAdvertisementDataLocalNameKey;         // text
extern const std::string CBAdvertisementDataManufacturerDataKey;  // bytes, company id first (LE)
extern const std::string CBAdvertisementDataServiceUUIDsKey;      // list of CBUUID
extern const std::string CBAdvertisementDataTxPowerLevelKey;      // number
extern const std::string CBAdvertisementDataIsConnectable;        // number (bool)

extern const std::string CBCentralManagerScanOptionAllowDuplicatesKey;  // number (bool)

/// The advertisement dictionary, typed. objectForKey/setObject give the
/// dictionary view of the scalar entries (service UUIDs are typed only).
struct CBAdvertisementData {
  std::optional<std::string> localName;
  Data manufacturerData;
  std::vector<CBUUID> serviceUUIDs;
  std::optional<int> txPowerLevel;
  std::optional<bool> isConnectable;

  std::optional<Object> objectForKey(std::string_view key) const;
  /// Stores `value` under a scalar key; a value of the wrong kind or an
  /// unknown key is ignored and false returned.
  bool setObject(const Object& value, std::string_view key);

  friend bool operator==(const CBAdvertisementData&, const CBAdvertisementData&) = default;
};

}  // namespace lumora
