#include "client/remote/remote_settings.h"

namespace qrtln {

RemoteSettings& remote_settings() {
    static RemoteSettings settings;
    return settings;
}

} // namespace qrtln
