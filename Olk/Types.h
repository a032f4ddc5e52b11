// The platform's shared names as the library spells them.
//
// Every component lives in namespace `Olk` and says `U32`, `Seconds`,
// `String` and `Ptr` without qualification; those names belong to the
// platform (namespace `Zum`), which knows nothing of the library. This header
// brings them in, together with the text-representation functions, so that a
// component's own `valueToStrep` overloads and the platform's ones for
// built-in types are found side by side. Declarations only; no code.
#pragma once

#include "platform/Ptr.h"
#include "platform/Strep.h"
#include "platform/Types.h"

namespace Olk {

using Zum::S16;
using Zum::S32;
using Zum::S64;
using Zum::S8;
using Zum::Seconds;
using Zum::String;
using Zum::U16;
using Zum::U32;
using Zum::U64;
using Zum::U8;

using Zum::Ptr;

using Zum::sequenceToValue;
using Zum::strepToValue;
using Zum::valueToStrep;

}  // namespace Olk
