// Memory objects.
#include "notes_simulator/api/call.h"
#include "notes_simulator/notes_simulator.h"

using namespace notes_sim;

STATUS OSMemAlloc(WORD BlkType, DWORD dwSize, DHANDLE* retHandle) {
    return statusCall("OSMemAlloc", std::to_string(BlkType) + ", " + std::to_string(dwSize),
                      [&](ApiCall& call) -> Status {
                          require(retHandle);
                          *retHandle = process().memory.add(std::make_unique<MemoryObject>(dwSize));
                          call.output("handle", *retHandle);
                          return kOk;
                      });
}

void* OSLockObject(DHANDLE Handle) {
    return valueCall("OSLockObject", std::to_string(Handle), static_cast<void*>(nullptr),
                     [&](ApiCall&) -> void* {
                         MemoryObject& object = process().memory.get(Handle);
                         ++object.locks;
                         return object.bytes.data();
                     });
}

BOOL OSUnlockObject(DHANDLE Handle) {
    return valueCall("OSUnlockObject", std::to_string(Handle), BOOL{0}, [&](ApiCall&) -> BOOL {
        MemoryObject& object = process().memory.get(Handle);
        if (object.locks == 0) {
            return 0;
        }
        --object.locks;
        return 1;
    });
}

STATUS OSMemFree(DHANDLE Handle) {
    return statusCall("OSMemFree", std::to_string(Handle), [&](ApiCall&) -> Status {
        process().memory.take(Handle);
        return kOk;
    });
}
