#include "notes_api/notes_api.h"

#include <cstdlib>
#include <dlfcn.h>
#include <unistd.h>
#include <utility>

NotesApi notes_api;

namespace {

constexpr char kLibrary[] = "libnotes.so";
constexpr const char* kCompanions[] = {"libndgts.so", "libxmlproc.so"};
// The runtime loads further libraries of its own by name and expects to find its symbols, as in a
// program that is linked with it. All symbols are bound at once: what is missing shows here and
// not in the middle of a backup.
constexpr int kLoadMode = RTLD_NOW | RTLD_GLOBAL;

// The libraries of one attempt; closed again, the last first, unless the attempt succeeds.
class LoadedLibraries {
  public:
    LoadedLibraries() = default;
    ~LoadedLibraries() {
        while (!m_handles.empty()) {
            dlclose(m_handles.back());
            m_handles.pop_back();
        }
    }
    LoadedLibraries(const LoadedLibraries&) = delete;
    LoadedLibraries& operator=(const LoadedLibraries&) = delete;

    // Returns nullptr on failure; dlerror has the text then.
    void* load(const std::string& name) {
        void* handle = dlopen(name.c_str(), kLoadMode);
        if (handle != nullptr) {
            m_handles.push_back(handle);
        }
        return handle;
    }
    void keep() { m_handles.clear(); }

  private:
    std::vector<void*> m_handles;
};

// The directory of $Notes_ExecDirectory with a trailing "/" when it has the library, else empty:
// the loader then searches by itself.
std::string libraryDirectory() {
    const char* directory = std::getenv("Notes_ExecDirectory");
    if (directory == nullptr || *directory == '\0') {
        // Not run by a test: open; a client without Notes_ExecDirectory.
        return "";
    }
    const std::string prefix = std::string(directory) + "/";
    return access((prefix + kLibrary).c_str(), F_OK) == 0 ? prefix : "";
}

void* loadLibrary(LoadedLibraries& libraries, std::string& error) {
    const std::string directory = libraryDirectory();
    for (const char* companion : kCompanions) {
        // A server may do without one. If it is needed, the library itself fails to load and the
        // loader's text names it.
        libraries.load(directory + companion);
    }
    void* library = libraries.load(directory + kLibrary);
    if (library == nullptr) {
        const char* text = dlerror();
        error = std::string("cannot load the Notes C API: ") +
                (text != nullptr ? text : "no reason given by the loader");
    }
    return library;
}

// The slots in the table's order that are still empty.
std::vector<NotesSlot*> emptySlots() {
    std::vector<NotesSlot*> slots;
    for (NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
        if (slot->address() == nullptr) {
            slots.insert(slots.begin(), slot);
        }
    }
    return slots;
}

} // namespace

NotesApiLoad loadNotesApi() {
    NotesApiLoad result;
    const std::vector<NotesSlot*> slots = emptySlots();
    if (slots.empty()) {
        return result;
    }

    LoadedLibraries libraries;
    void* library = RTLD_DEFAULT;
    if (dlsym(RTLD_DEFAULT, "NotesInitExtended") == nullptr) {
        library = loadLibrary(libraries, result.error);
        if (library == nullptr) {
            return result;
        }
    }

    // Nothing is put into the table before all of it is known to be there.
    std::vector<std::pair<NotesSlot*, void*>> found;
    for (NotesSlot* slot : slots) {
        if (void* address = dlsym(library, slot->name()); address != nullptr) {
            found.emplace_back(slot, address);
        } else {
            result.missing.emplace_back(slot->name());
        }
    }
    if (!result.missing.empty()) {
        result.error = "the Notes C API that was loaded lacks " +
                       std::to_string(result.missing.size()) +
                       " of the functions needed, the first is " + result.missing.front();
        return result;
    }
    for (const auto& [slot, address] : found) {
        slot->setAddress(address);
    }
    libraries.keep();
    return result;
}
