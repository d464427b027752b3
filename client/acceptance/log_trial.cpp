#include "client/acceptance/log_trial.h"

#include "client/acceptance/notes_runtime.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/store/digest.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>

namespace qrtln::acceptance {

namespace {

constexpr std::size_t most_logs = 100000;

struct Log {
    UNIVERSALNOTEID id{};
    DWORD number = 0;
    std::string path;
};

struct Listing {
    std::vector<Log> ready;
    Log active;
    STATUS last = 0; // of the call that found no more
    const char* call = "";
};

std::string identity(const UNIVERSALNOTEID& id) {
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%08X-%08X %08X%08X", id.File.Innards[0],
                  id.File.Innards[1], id.Note.Innards[0], id.Note.Innards[1]);
    return text.data();
}

std::string described(const Log& log) {
    return fmt::format("number {}, {}, identity {}", log.number, printable_utf8(log.path),
                       identity(log.id));
}

// Goes on until a call fails; that there is no more is a failure with a number of its own.
Listing list_logs(Teller& teller) {
    Listing listing;
    for (listing.call = "NSFGetFirstLogToArchive"; listing.ready.size() < most_logs;
         listing.call = "NSFGetNextLogToArchive") {
        Log log;
        std::vector<char> path(path_buffer_size);
        teller.calling(std::string(listing.call) + "()");
        listing.last = listing.ready.empty()
                           ? notes_api.NSFGetFirstLogToArchive(&log.id, &log.number, path.data())
                           : notes_api.NSFGetNextLogToArchive(&log.id, &log.number, path.data());
        log.path = path.data();
        if (listing.last != kNotesNoError) {
            listing.active = log;
            return listing;
        }
        listing.ready.push_back(log);
    }
    teller.stop("listing", "the list of logs does not end");
}

// Says what was listed. Without a session a server need not list its logs.
void tell_listing(Teller& teller, const Listing& listing, const std::string& when, bool session) {
    const Statuses statuses = {{listing.call, listing.last}};
    if (!isStatus(listing.last, kNotesNoLogToArchive)) {
        const std::string text =
            fmt::format("the logs are not listed {}: {}", when, status_text(listing.last));
        if (session)
            teller.stop("listing", text, statuses);
        return teller.told("listing", text + "; full backups take them with --log-session",
                           statuses, true);
    }
    std::string first = listing.ready.empty() ? "" : "; the first: " + described(listing.ready[0]);
    teller.ok("listing",
              fmt::format("{} logs are ready {}; the active one: {}{}", listing.ready.size(), when,
                          described(listing.active), first),
              statuses);
}

[[noreturn]] void fail(const std::string& what, int error) {
    throw ClientError(ExitCode::failed, fmt::format("{}: {}", what, system_error_text(error)));
}

// Reads a file to its end, for its digest; a copy goes to `target` where that is a descriptor.
std::string read_through(Teller& teller, const std::string& path, int target) {
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        fail("cannot read " + for_terminal(path), errno);
    Sha256 digest;
    std::vector<std::byte> buffer(std::size_t{1} << 20);
    for (;;) {
        teller.calling("reading " + for_terminal(path));
        const ssize_t size = read_up_to(file.get(), buffer);
        if (size < 0)
            fail("cannot read " + for_terminal(path), static_cast<int>(-size));
        if (size == 0)
            return digest.finish();
        const Bytes bytes(buffer.data(), static_cast<std::size_t>(size));
        digest.update(bytes);
        if (int error = target < 0 ? 0 : write_all(target, bytes); error != 0)
            fail("cannot keep " + for_terminal(path), error);
    }
}

// Keeps a log and compares it, down to the disk. Returns its new path.
std::string keep_log(Teller& teller, const Log& log, const std::string& folder) {
    std::string kept = fmt::format("{}/{}-{}", folder, log.number, name_of(log.path));
    FileDescriptor target(
        ::open(kept.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!target)
        fail("cannot keep a log in " + for_terminal(kept), errno);
    const std::string digest = read_through(teller, log.path, target.get());
    if (::fsync(target.get()) != 0)
        fail("cannot flush " + for_terminal(kept), errno);
    if (int error = target.close_checked(); error != 0)
        fail("cannot keep " + for_terminal(kept), error);
    if (int error = flush_directory(AT_FDCWD, folder); error != 0)
        fail("cannot flush " + for_terminal(folder), error);
    if (read_through(teller, kept, -1) != digest || read_through(teller, log.path, -1) != digest)
        teller.stop("kept log",
                    fmt::format("what was kept in {} is not what the server has; it was not marked",
                                for_terminal(kept)));
    return kept;
}

// An archiving session that this process began; ended in any case.
class Session {
  public:
    explicit Session(Teller& teller) : m_teller(teller) {
        teller.calling("NSFBeginArchivingLogs()");
        const STATUS status = notes_api.NSFBeginArchivingLogs();
        const Statuses statuses = {{"NSFBeginArchivingLogs", status}};
        if (isStatus(status, kNotesArchivingInProgress))
            teller.stop(
                "session",
                fmt::format(
                    "another program archives the logs, or left its session: {}; it was left alone",
                    status_text(status)),
                statuses);
        if (status != kNotesNoError)
            teller.stop("session", "no archiving session is begun: " + status_text(status),
                        statuses);
        m_open = true;
        teller.leaves("session",
                      "an archiving session of this check stays begun on the server: the next "
                      "incremental backup ends it");
    }
    ~Session() {
        if (m_open)
            (void)end();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    STATUS end() {
        m_open = false;
        m_teller.undoing("NSFEndArchivingLogs()");
        const STATUS status = notes_api.NSFEndArchivingLogs();
        if (status == kNotesNoError)
            m_teller.leaves("session", "");
        return status;
    }

  private:
    Teller& m_teller;
    bool m_open = false;
};

bool is_listed(const Listing& listing, const Log& log) {
    return std::any_of(listing.ready.begin(), listing.ready.end(),
                       [&](const Log& other) { return other.number == log.number; });
}

void mark(Teller& teller, Log log, const std::string& kept) {
    teller.calling(fmt::format("NSFDoneArchivingLog(number {})", log.number));
    teller.leaves("log", fmt::format("the log that is kept in {} may be marked as archived: keep "
                                     "it, a recovery needs it then",
                                     for_terminal(kept)));
    const STATUS status = notes_api.NSFDoneArchivingLog(&log.id, &log.number);
    teller.leaves("log", "");
    const Statuses statuses = {{"NSFDoneArchivingLog", status}};
    if (status != kNotesNoError)
        teller.stop("marking",
                    fmt::format("the log that is kept in {} is not marked as archived: {}",
                                for_terminal(kept), status_text(status)),
                    statuses);
    teller.ok("marking",
              fmt::format("number {} is kept in {}, compared, and marked as archived", log.number,
                          for_terminal(kept)),
              statuses);
}

void archive_first(Teller& teller, const Listing& listing, const std::string& folder) {
    if (listing.ready.empty())
        return teller.told("marking", "no log is ready: marking one was not tried");
    const Log& first = listing.ready[0];
    mark(teller, first, keep_log(teller, first, folder));
    const Listing again = list_logs(teller);
    tell_listing(teller, again, "after that", true);
    if (is_listed(again, first))
        teller.stop("marking", "the log that was marked is listed again");
}

} // namespace

void trial_list_logs(Teller& teller, const ProbeRequest& request) {
    Runtime runtime(teller, request.ini);
    tell_listing(teller, list_logs(teller), "without a session", false);
}

void trial_mark_log(Teller& teller, const ProbeRequest& request) {
    Runtime runtime(teller, request.ini);
    Session session(teller);
    teller.ok("session", "begun", {{"NSFBeginArchivingLogs", 0}});
    const Listing listing = list_logs(teller);
    tell_listing(teller, listing, "in a session", true);
    archive_first(teller, listing, request.log_folder);
    const STATUS ended = session.end();
    if (ended != kNotesNoError)
        teller.stop("session", "the session is not ended: " + status_text(ended),
                    {{"NSFEndArchivingLogs", ended}});
    teller.ok("session", "ended", {{"NSFEndArchivingLogs", ended}});
}

} // namespace qrtln::acceptance
