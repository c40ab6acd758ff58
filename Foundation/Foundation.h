// Umbrella header of the Foundation layer.
#pragma once

#include "Foundation/Atomic.h"
#include "Foundation/Bytes.h"
#include "Foundation/Dispatch.h"
#include "Foundation/NSLog.h"
#include "Foundation/NSNumberFormatter.h"
#include "Foundation/NSUserDefaults.h"
#include "Foundation/Number.h"
#include "Foundation/Object.h"
#include "Foundation/RunLoop.h"
#include "Foundation/Uuid.h"
