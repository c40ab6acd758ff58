// Umbrella header of the CoreBluetooth layer.
#pragma once

#include "CoreBluetooth/Backend.h"
#include "CoreBluetooth/CBAdvertisementData.h"
#include "CoreBluetooth/CBCentralManager.h"
#include "CoreBluetooth/CBPeripheral.h"
#include "CoreBluetooth/CBPeripheralManager.h"
#include "CoreBluetooth/CBTypes.h"
#include "CoreBluetooth/CBUUID.h"
