// A file that is about to be replaced, kept beside itself.
#pragma once

#include <functional>
#include <string>

namespace qrtln {

struct KeptFile {
    std::string path;    // of the copy; empty when there is none
    std::string problem; // why there is none
};

// Copies the file `target`, below the folder `root`, to "NAME.replaced-YYYYMMDDThhmmssZ" beside it,
// with its owner, mode and time, flushed: no database for the server or the module, and never over
// another file. Nothing may write to it meanwhile. Removes what killed runs left of such copies in
// the folder. `interrupted` is asked now and then and ends it by true. Leaves nothing when it
// fails.
KeptFile keep_beside(const std::string& root, const std::string& target,
                     const std::function<bool()>& interrupted);

} // namespace qrtln
