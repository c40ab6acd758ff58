// Umbrella header of the CoreLocation layer.
#pragma once

#include "CoreLocation/CLBeaconRegion.h"
#include "CoreLocation/CLLocationManager.h"
