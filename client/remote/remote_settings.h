// What the options of a command say about stores that lie elsewhere.
#pragma once

#include <chrono>
#include <string>

namespace qrtln {

struct RemoteSettings {
    std::string state;     // the folder for what must be local, a folder a store; empty: the usual
    std::string bandwidth; // as rclone takes it; empty: all there is
    std::chrono::seconds patience{300}; // with a place that fails again and again
    bool breaks_claim = false;          // of another writer
};

// Of this run; set before the first store is opened.
RemoteSettings& remote_settings();

} // namespace qrtln
