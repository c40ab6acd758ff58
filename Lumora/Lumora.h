// Lumora: a Bluetooth LE beacon library.
//
//   #include <Lumora/Lumora.h>
//   auto finder = std::make_shared<lumora::TQBleFinder>();
//   auto emulator = std::make_shared<lumora::TQBleProcess>();
#pragma once

#include "Lumora/Lumora_vers.h"
#include "Lumora/TQBeaconAP.h"
#include "Lumora/TQBleFinder.h"
#include "Lumora/TQBleProcess.h"
