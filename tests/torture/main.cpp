// torture [--long] [--part NAME] [--scenario NAME] [--call NAME]
//
// Makes every call of an operation fail and looks at what that costs. Exits with 0 when it costs
// nothing, 1 when something was lost, left over or claimed wrongly, 2 for wrong options.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "tests/torture/fail_at_n.h"

namespace {

int usage() {
    std::fputs("usage: torture [--long] [--part fail_at_n|allocations|system_calls] [--scenario "
               "full|incremental|differential|activation|"
               "deleted|changed|recovery] [--call NAME]\n",
               stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv) try {
    Choice choice;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--long") == 0) {
            choice.longForm = true;
        } else if (std::strcmp(argv[i], "--part") == 0 && i + 1 < argc) {
            choice.part = argv[++i];
        } else if (std::strcmp(argv[i], "--scenario") == 0 && i + 1 < argc) {
            choice.scenario = argv[++i];
        } else if (std::strcmp(argv[i], "--call") == 0 && i + 1 < argc) {
            choice.call = argv[++i];
        } else {
            return usage();
        }
    }
    int failures = 0;
    bool found = false;
    const std::string wanted = choice.part;
    for (const char* part : {kNotesCalls, kAllocations, kSystemCalls}) {
        if (wanted.empty() || wanted == part) {
            found = true;
            choice.part = part;
            failures += failAtN(choice);
        }
    }
    if (!found) {
        return usage();
    }
    return failures == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "torture: %s\n", error.what());
    return 1;
}
