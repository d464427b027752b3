// Writes the manual pages and completions of domino-sim into a folder, for packages:
// domino-sim-reference FOLDER
#include "notes_simulator/domino_sim/cli.h"
#include "reference/command_text.h"

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: domino-sim-reference FOLDER\n");
        return 2;
    }
    return qrtln::reference::write_reference(*domino_sim::commandTree(), argv[1], "");
}
