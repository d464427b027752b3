// A library in the server's place that lacks nearly all functions, and that crashes while it is
// loaded where faults are set.
#include <cstdlib>

extern "C" unsigned short NSFDbClose(unsigned) {
    return 0;
}

__attribute__((constructor)) static void crash() {
    if (const char* faults = std::getenv("NOTES_SIM_FAULTS"); faults != nullptr && *faults != 0)
        std::abort();
}
