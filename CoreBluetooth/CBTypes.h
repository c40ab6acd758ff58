// Enumerations shared by both roles.
#pragma once

#include <cstdint>
#include <string>

namespace lumora {

/// The manager state reported by both manager kinds. 5 is powered on.
enum class CBManagerState : int {
  Unknown = 0,
  Resetting = 1,
  Unsupported = 2,
  Unauthorized = 3,
  PoweredOff = 4,
  PoweredOn = 5,
};
const char* toString(CBManagerState state);

/// Characteristic property bits (the Bluetooth Core values).
enum CBCharacteristicProperties : std::uint8_t {
  CBCharacteristicPropertyBroadcast = 0x01,
  CBCharacteristicPropertyRead = 0x02,
  CBCharacteristicPropertyWriteWithoutResponse = 0x04,
  CBCharacteristicPropertyWrite = 0x08,
  CBCharacteristicPropertyNotify = 0x10,
  CBCharacteristicPropertyIndicate = 0x20,
  CBCharacteristicPropertyAuthenticatedSignedWrites = 0x40,
  CBCharacteristicPropertyExtendedProperties = 0x80,
};

/// Attribute permission bits of a local characteristic.
enum CBAttributePermissions : std::uint8_t {
  CBAttributePermissionsReadable = 0x01,
  CBAttributePermissionsWriteable = 0x02,
  CBAttributePermissionsReadEncryptionRequired = 0x04,
  CBAttributePermissionsWriteEncryptionRequired = 0x08,
};

enum class CBCharacteristicWriteType : int { WithResponse = 0, WithoutResponse = 1 };

enum class CBPeripheralState : int {
  Disconnected = 0,
  Connecting = 1,
  Connected = 2,
  Disconnecting = 3
};
const char* toString(CBPeripheralState state);

/// ATT result codes a peripheral answers requests with (Bluetooth Core values).
enum class CBATTError : int {
  Success = 0x00,
  InvalidHandle = 0x01,
  ReadNotPermitted = 0x02,
  WriteNotPermitted = 0x03,
  InvalidPdu = 0x04,
  InsufficientAuthentication = 0x05,
  RequestNotSupported = 0x06,
  InvalidOffset = 0x07,
  InsufficientAuthorization = 0x08,
  PrepareQueueFull = 0x09,
  AttributeNotFound = 0x0A,
  AttributeNotLong = 0x0B,
  InsufficientEncryptionKeySize = 0x0C,
  InvalidAttributeValueLength = 0x0D,
  UnlikelyError = 0x0E,
  InsufficientEncryption = 0x0F,
  UnsupportedGroupType = 0x10,
  InsufficientResources = 0x11,
};

/// Error domains of errors handed to CoreBluetooth callbacks.
extern const std::string CBErrorDomain;     // link-level failures (codes below)
extern const std::string CBATTErrorDomain;  // the peer's ATT result code

enum class CBError : int {
  Unknown = 0,
  InvalidParameters = 1,
  InvalidHandle = 2,
  NotConnected = 3,
  OutOfSpace = 4,
  OperationCancelled = 5,
  ConnectionTimeout = 6,
  PeripheralDisconnected = 7,
  UUIDNotAllowed = 8,
  AlreadyAdvertising = 9,
  ConnectionFailed = 10,
};

}  // namespace lumora
