// What tests ask of the library: faults, what is open, and which companions came before it.
#include "notes_simulator/api/call.h"
#include "notes_simulator/notes_simulator.h"

#include <link.h>

#include <algorithm>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace {

int g_companions = 0;

int noteCompanion(dl_phdr_info* info, std::size_t, void*) {
    const std::string name = fs::path(info->dlpi_name).filename().string();
    g_companions |= name == "libndgts.so" ? 1 : 0;
    g_companions |= name == "libxmlproc.so" ? 2 : 0;
    return 0;
}

// Which companions were loaded before this library can only be told at its own load.
__attribute__((constructor)) void noteCompanions() {
    dl_iterate_phdr(noteCompanion, nullptr);
}

} // namespace

int NotesSimSetFaults(const char* text) {
    return text != nullptr && setFaults(text) ? 0 : 1;
}

unsigned NotesSimFaultsFired(void) {
    return faultsFired();
}

unsigned NotesSimOutstanding(int kind) {
    Process& self = process();
    const std::lock_guard guard(self.mutex);
    const auto count = [](const auto& table) { return static_cast<unsigned>(table.size()); };
    switch (kind) {
    case NOTES_SIM_DATABASES:
        return count(self.databases);
    case NOTES_SIM_BACKUP_CONTEXTS:
        return static_cast<unsigned>(
            std::count_if(self.backups.all().begin(), self.backups.all().end(),
                          [](const auto& entry) { return entry.second->own; }));
    case NOTES_SIM_APPLY_CONTEXTS:
        return count(self.applying);
    case NOTES_SIM_ID_TABLES:
        return count(self.tables);
    case NOTES_SIM_MEMORY_OBJECTS:
        return count(self.memory);
    case NOTES_SIM_LOCKED_OBJECTS:
        return static_cast<unsigned>(
            std::count_if(self.memory.all().begin(), self.memory.all().end(),
                          [](const auto& entry) { return entry.second->locks > 0; }));
    default:
        return 0;
    }
}

void NotesSimAbandon(void) {
    Process& self = process();
    const std::lock_guard guard(self.mutex);
    self.backups.clear();
    closeEverything(self);
}

int NotesSimCompanions(void) {
    return g_companions;
}
