// Version symbols of the Lumora framework.
#pragma once

namespace lumora {

/// 1.0
extern const double LumoraVersionNumber;
/// "@(#)PROGRAM:Lumora  PROJECT:Lumora-1\n", zero-terminated.
extern const unsigned char LumoraVersionString[];

}  // namespace lumora
