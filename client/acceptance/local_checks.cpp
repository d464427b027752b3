#include "client/acceptance/local_checks.h"

#include "client/acceptance/ini_check.h"
#include "client/acceptance/links_check.h"
#include "client/backup/arguments.h"
#include "client/base/elf_symbols.h"
#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/text.h"
#include "client/domino/server_lock.h"
#include "client/domino/server_user.h"
#include "client/module/temporary_directory.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/store/canonical_json.h"
#include "client/store/store.h"
#include "notes_api/notes_api.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <langinfo.h>
#include <locale.h>
#include <sys/stat.h>

namespace qrtln::acceptance {

namespace {

class Checks {
  public:
    Checks(Report& report, const LocalRequest& request)
        : m_report(report), m_request(request), m_ini(request.ini) {}

    void user() {
        struct stat status {};
        if (::stat(m_ini.data_directory.c_str(), &status) != 0)
            return add("user", Verdict::stop,
                       "cannot look at the data directory: " + system_error_text(errno));
        const std::string own = user_text(::geteuid());
        const std::string owner = user_text(status.st_uid);
        const std::optional<ServerUser> user = server_user(m_ini.data_directory);
        if (status.st_uid == ::geteuid())
            add("user", Verdict::ok, own + ", who owns the data directory");
        else if (user)
            add("user", user->has_entry ? Verdict::ok : Verdict::told,
                fmt::format("the library runs as {}, who owns the data directory{}", user->name,
                            user->has_entry ? "" : "; the system has no entry for that user"));
        else
            add("user", Verdict::told,
                fmt::format("the library runs as {}, the data directory is {}'s: it may fail, or "
                            "make files that the server cannot write",
                            own, owner));
    }

    void environment() {
        for (const std::string& warning : m_request.environment.warnings)
            add("environment", Verdict::told, warning);
        const char* set = std::getenv("Notes_ExecDirectory");
        std::string given = set != nullptr ? set : "";
        std::string folder = given.empty() ? m_ini.program_directory : given;
        if (::access((folder + "/libnotes.so").c_str(), R_OK) != 0)
            return add("environment", Verdict::told,
                       fmt::format("libnotes.so is not in {}: the loader has to find it", folder));
        add("environment", Verdict::ok, "libnotes.so is in " + folder);
        symbols(folder + "/libnotes.so");
    }

    void locale(const std::vector<std::string>& databases) {
        auto foreign = std::count_if(databases.begin(), databases.end(), [](const auto& path) {
            return std::any_of(path.begin(), path.end(),
                               [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
        });
        std::string codeset = environment_codeset();
        bool good = codeset == "UTF-8";
        for (const auto& [name, value] : m_request.environment.variables)
            if (name.starts_with("LC_")) {
                codeset += fmt::format(", and {}={} for the library", name, value);
                good = true;
            }
        add("locale", good ? Verdict::ok : Verdict::told,
            fmt::format("codeset {}; {} databases have names that are not ASCII", codeset,
                        foreign));
    }

    void room(const SelectionScan& scan) {
        std::string largest = human_bytes(scan.largest);
        try {
            require_usable_tmp_dir(m_request.tmp_dir, m_ini.data_directory);
        } catch (const ClientError& refused) {
            return add("room", Verdict::stop, refused.what());
        }
        std::optional<std::uint64_t> free = free_bytes(m_request.tmp_dir);
        bool writable = ::access(m_request.tmp_dir.c_str(), W_OK | X_OK) == 0;
        if (!free || !writable)
            return add(
                "room", Verdict::stop,
                fmt::format("cannot use {}: {}", m_request.tmp_dir, system_error_text(errno)));
        add("room", *free >= scan.largest ? Verdict::ok : Verdict::stop,
            fmt::format("{} free in {}, the largest database has {}", human_bytes(*free),
                        m_request.tmp_dir, largest));
    }

    void attachments() {
        std::string enabled = ini_value(m_ini, "daosenable");
        const std::string& folder = m_ini.attachment_folder;
        if (enabled != "1" && !exists(folder))
            return add("attachments", Verdict::ok, "no attachment store");
        bool outside = !is_below(folder, m_ini.data_directory);
        bool readable = ::access(folder.c_str(), R_OK | X_OK) == 0;
        std::string text =
            fmt::format("DAOSEnable={}, the attachment store is {}", enabled, folder);
        if (!readable)
            add("attachments", Verdict::stop,
                fmt::format("{}: {}", text, system_error_text(errno)));
        else
            add("attachments", outside ? Verdict::told : Verdict::ok,
                text + (outside ? ", outside the data directory" : ""));
    }

    void archivers() {
        std::string note = fmt::format("{}/{}", m_ini.data_directory, log_archive_file);
        if (exists(note))
            add("archivers", Verdict::told, "its logs are archived already: " + archiver(note));
        else
            add("archivers", Verdict::ok, "no store archives its logs yet");
        if (std::string run = run_that_locks(m_ini); !run.empty())
            add("archivers", Verdict::told,
                "another run backs up databases of this server now" +
                    (m_request.hide_names ? "" : ": " + run));
        if (!m_request.store.empty())
            store();
    }

    void log() {
        if (!m_ini.logging)
            return add("log", Verdict::told,
                       "no transaction logging (TRANSLOG_Status): full backups only");
        std::string folder = log_directory(m_ini);
        std::string style = m_ini.archives_logs    ? "archive"
                            : m_ini.linear_logging ? "linear"
                                                   : "circular";
        std::optional<std::vector<std::string>> names = names_in_folder(folder);
        if (!names)
            return add("log", Verdict::stop,
                       fmt::format("the logs' folder {} cannot be read: {}", folder,
                                   system_error_text(errno)));
        auto extents = std::count_if(names->begin(), names->end(), [](const std::string& name) {
            return name.ends_with(".TXN") || name.ends_with(".txn");
        });
        add("log", m_ini.archives_logs ? Verdict::ok : Verdict::told,
            fmt::format("{}, extents in {}: {}{}", style, folder, extents,
                        m_ini.archives_logs ? "" : ": no incremental backup, no roll-forward"));
    }

  private:
    // Those that the library has itself; what it needs may have the others.
    void symbols(const std::string& library) {
        std::string problem;
        const auto defined = defined_symbols(library, problem);
        if (!defined)
            return add("symbols", Verdict::stop, fmt::format("{}: {}", library, problem));
        std::string missing;
        std::size_t count = 0;
        for (const NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
            ++count;
            if (!defined->contains(std::string_view(slot->name())))
                missing += (missing.empty() ? "" : ", ") + std::string(slot->name());
        }
        if (missing.empty())
            return add("symbols", Verdict::ok, fmt::format("all {} functions are there", count));
        add("symbols", Verdict::told,
            "another library has to have these functions, `qrtln check --try` looks: " + missing);
    }

    void add(const std::string& name, Verdict verdict, const std::string& text) {
        m_report.add({Step::without_library, name, verdict, printable_utf8(text), {}, false});
    }

    // Where, as the note says.
    static std::string archiver(const std::string& note) {
        std::string problem;
        std::optional<std::string> bytes = read_small_file(AT_FDCWD, note, 65536);
        auto document = bytes ? from_canonical(*bytes, problem) : std::nullopt;
        return document ? fmt::format("into {} since {}", get_bytes(*document, "store"),
                                      document->value("since", ""))
                        : note + " cannot be read";
    }

    void store() {
        try {
            auto opened = open_directory_store(m_request.store, StoreAccess::read);
            std::string other = other_log_archive(m_ini, *opened);
            add("store", other.empty() ? Verdict::ok : Verdict::stop,
                other.empty() ? "this store may archive its logs" : other);
            chain(*opened);
        } catch (const ClientError& failure) {
            if (failure.exit_code() != static_cast<int>(ExitCode::no_store))
                throw;
            add("store", Verdict::told, failure.what());
        }
    }

    // What the next backup builds on, and whether it has room.
    void chain(Store& store) {
        if (std::optional<std::uint64_t> free = free_bytes(store.location()))
            add("store", Verdict::ok,
                human_bytes(*free) + (store.address() == store.location()
                                          ? " free where the store lies"
                                          : " free for what is on its way to the store"));
        const std::string newest = newest_set(store, m_ini.sets);
        if (newest.empty())
            return add("chain", Verdict::ok, "no set of this server yet");
        const CatalogueEntry entry = load_set(store, newest, m_ini.sets);
        if (!entry.manifest)
            return add("chain", Verdict::told,
                       fmt::format("the manifest of the newest set {} {}: take a full backup",
                                   newest, entry.problem));
        const Manifest& manifest = *entry.manifest;
        std::string text = fmt::format("the newest set {} of {} is {}", newest,
                                       utc_time(complete_at(manifest)), status_text(manifest));
        for (const LogGap& gap : manifest.log_gaps)
            text += "; " + describe(gap);
        const bool has_base = find_base(store, m_ini.sets).has_value();
        const bool needs_full = !has_base || !manifest.log_gaps.empty();
        if (!has_base)
            text += "; no complete full set of the whole server to build on";
        add("chain", needs_full || !manifest.complete ? Verdict::told : Verdict::ok,
            text + (needs_full ? ": take a full backup" : ""));
    }

    Report& m_report;
    const LocalRequest& m_request;
    const NotesIni& m_ini;
};

} // namespace

std::string environment_codeset() {
    locale_t environment = ::newlocale(LC_CTYPE_MASK, "", nullptr);
    if (environment == nullptr)
        return "of a locale that is not installed";
    std::string codeset = ::nl_langinfo_l(CODESET, environment);
    ::freelocale(environment);
    return codeset;
}

std::vector<std::string> check_without_library(Report& report, const LocalRequest& request) {
    Checks checks(report, request);
    checks.user();
    check_notes_ini(report, request.ini);
    checks.environment();
    SelectionScan scan = scan_selection(request.ini.data_directory, {});
    std::sort(scan.databases.begin(), scan.databases.end());
    checks.locale(scan.databases);
    checks.room(scan);
    std::vector<std::string> databases = check_links(report, request, scan);
    checks.attachments();
    checks.archivers();
    checks.log();
    return databases;
}

} // namespace qrtln::acceptance
