// Moments as the module writes them, and how the server reads them.
#pragma once

#include "client/acceptance/teller.h"

namespace qrtln::acceptance {

// A winter, a summer and the present time, in both forms that the module uses, there and back.
// Stops the group when the server reads another moment. REQUIRES: the runtime is up.
void probe_times(Teller& teller);

} // namespace qrtln::acceptance
