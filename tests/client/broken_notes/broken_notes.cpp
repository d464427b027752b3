// A library in the server's place whose NSFDbClose does not return, or crashes where faults are
// set. Its other functions are the simulator's; the build has it a second time, where they are
// missing.
#include <cstdlib>
#include <unistd.h>

extern "C" unsigned short NSFDbClose(unsigned) {
    for (const char* faults = std::getenv("NOTES_SIM_FAULTS"); faults == nullptr || *faults == 0;)
        ::pause();
    std::abort();
}
