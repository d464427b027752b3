// The calls that a backup does not make: they fail. What notes.cpp defines takes the place of
// these.
#include "notes_api/types.h"

#include <type_traits>

namespace {

template <typename Result>
Result unsupported() {
    constexpr STATUS kInvalidArgument = 0x3F02; // of the simulated server
    if constexpr (std::is_integral_v<Result>) {
        return static_cast<Result>(kInvalidArgument);
    } else {
        return Result();
    }
}

} // namespace

#pragma GCC diagnostic ignored "-Wunused-parameter"
extern "C" {

#define NOTES_FUNCTION(result, name, args, handles)                                                \
    __attribute__((weak)) result name args {                                                       \
        return unsupported<result>();                                                              \
    }
#include "notes_api/functions.h"

} // extern "C"
