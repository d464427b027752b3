// The client's function that the module calls to find its directory of run-time data.
#include "tests/qrtln_f/fake_server.h"

extern "C" void resolve_path(char* path) {
    const std::string text = path;
    const std::string prefix = "gv_rw_times:";
    if (text.starts_with(prefix)) {
        copyText(path, kPathSize,
                 (FakeServer::s_runTimeDirectory + "/" + text.substr(prefix.size())).c_str());
    }
}
