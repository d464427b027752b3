#include "client/base/version.h"

namespace qrtln {

const char* client_version() {
    return QRTLN_VERSION;
}

} // namespace qrtln
