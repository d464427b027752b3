// The version of this program.
#pragma once

namespace qrtln {

// "0.1.0".
const char* client_version();

} // namespace qrtln
