#include "client/acceptance/notes_runtime.h"

#include "client/base/error.h"
#include "client/base/limits.h"
#include "client/base/text.h"
#include "client/domino/notes_ini.h"
#include "client/module/environment.h"

#include <cstring>
#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

namespace qrtln::acceptance {

namespace {

std::string with_hint(const std::string& text, const std::string& loader_text,
                      const NotesIni& ini) {
    const std::string hint = loader_hint(loader_text, ini);
    return printable_utf8(hint.empty() ? text : fmt::format("{}: {}", text, hint));
}

} // namespace

void load_library(Teller& teller, const NotesIni& ini, bool tell) {
    teller.calling("loading libnotes.so");
    NotesApiLoad load = loadNotesApi();
    if (!load.missing.empty()) {
        std::string names;
        for (const std::string& name : load.missing)
            names += (names.empty() ? "" : ", ") + name;
        teller.stop("symbols", with_hint(fmt::format("the library lacks {} of the functions, {}",
                                                     load.missing.size(), names),
                                         "the first is " + load.missing[0], ini));
    }
    if (!load.error.empty())
        teller.stop("library", with_hint(load.error, load.error, ini));
    if (!tell)
        return;
    std::size_t count = 0;
    for (NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next())
        ++count;
    Dl_info place{};
    bool known = ::dladdr(notes_api.NotesInitExtended.address(), &place) != 0;
    teller.ok("library", known ? printable_utf8(place.dli_fname) : "it does not tell its place");
    teller.ok("symbols", fmt::format("all {} functions are there", count));
}

Runtime::Runtime(Teller& teller, const NotesIni& ini, bool tell) : m_teller(teller) {
    load_library(teller, ini, tell);
    // Not before: a library that is looked for at a relative path is not to be found there.
    if (::chdir(ini.data_directory.c_str()) != 0 && tell)
        teller.told("start",
                    fmt::format("the library runs in \"/\": cannot enter {}: {}",
                                printable_utf8(ini.data_directory), system_error_text(errno)));
    std::string executable = "qrtln";
    std::string file = "=" + ini.file; // a leading "=" marks it for the runtime
    char* arguments[] = {executable.data(), file.data(), nullptr};
    teller.calling(fmt::format("NotesInitExtended(2, qrtln, {})", for_terminal(file)));
    const STATUS status = notes_api.NotesInitExtended(2, arguments);
    if (status != kNotesNoError)
        teller.stop("start", "the runtime does not start: " + status_text(status),
                    {{"NotesInitExtended", status}});
    if (tell)
        teller.ok("start", "the runtime is up", {{"NotesInitExtended", status}});
}

Runtime::~Runtime() {
    m_teller.undoing("NotesTerm()");
    notes_api.NotesTerm();
}

std::string status_text(STATUS status) {
    const auto number = static_cast<STATUS>(status & kStatusNumberMask);
    std::string text = std::to_string(number);
    char buffer[512] = "";
    notes_api.OSLoadString(0, number, buffer, sizeof buffer);
    buffer[sizeof buffer - 1] = '\0';
    if (*buffer != '\0')
        text += fmt::format(" \"{}\"", printable_utf8(buffer));
    if (number != status)
        text += " with the flags of " + std::to_string(status);
    return text;
}

std::vector<char> lmbcs_path(Teller& teller, const NamedDatabase& database) {
    std::vector<char> lmbcs(path_buffer_size);
    teller.calling(fmt::format("OSTranslate(0, {})", database.shown));
    notes_api.OSTranslate(kTranslateNativeToLmbcs, database.path.c_str(), kTranslateWholeString,
                          lmbcs.data(), module_path_size);
    lmbcs.back() = '\0';
    return lmbcs;
}

std::vector<char> lmbcs_path(Teller& teller, const std::string& path) {
    return lmbcs_path(teller, NamedDatabase{path, for_terminal(path)});
}

OpenDatabase::OpenDatabase(Teller& teller, const NamedDatabase& database)
    : m_teller(teller), m_shown(database.shown) {
    const std::vector<char> path = lmbcs_path(teller, database);
    teller.calling(fmt::format("NSFDbOpen({})", m_shown));
    const STATUS status = notes_api.NSFDbOpen(path.data(), &m_handle);
    if (status != kNotesNoError)
        teller.stop("open", fmt::format("cannot open {}: {}", m_shown, status_text(status)),
                    {{"NSFDbOpen", status}});
}

OpenDatabase::~OpenDatabase() {
    if (m_handle == 0)
        return;
    m_teller.undoing(fmt::format("NSFDbClose({})", m_shown));
    notes_api.NSFDbClose(m_handle);
}

void OpenDatabase::close() {
    m_teller.calling(fmt::format("NSFDbClose({})", m_shown));
    const STATUS status = notes_api.NSFDbClose(std::exchange(m_handle, 0));
    if (status != kNotesNoError)
        m_teller.stop("close", fmt::format("cannot close {}: {}", m_shown, status_text(status)),
                      {{"NSFDbClose", status}});
}

} // namespace qrtln::acceptance
