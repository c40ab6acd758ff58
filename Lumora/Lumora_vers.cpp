// Version symbols, as the framework's build stamps them.
#include "Lumora/Lumora_vers.h"

namespace lumora {

const double LumoraVersionNumber = 1.0;
// what(1) reads the "@(#)" marker; the two blanks before PROJECT and the
// trailing line feed are part of the stamp and tools compare it byte for byte.
const unsigned char LumoraVersionString[] = "@(#)PROGRAM:Lumora  PROJECT:Lumora-1\n";

}  // namespace lumora
