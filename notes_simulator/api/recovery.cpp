// Roll-forward recovery of databases.
#include "notes_simulator/engine/recovery.h"
#include "notes_simulator/api/call.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/notes_simulator.h"

#include <cstring>
#include <limits>

using namespace notes_sim;

namespace {

constexpr DWORD kNewDbiid = 2;
constexpr DWORD kKeepDbiid = 4;
constexpr std::size_t kLongestLogPath = 1028; // with its NUL

/// The names of a double-NUL-terminated list.
std::vector<std::string> namesOf(const char* list) {
    std::vector<std::string> names;
    for (; list != nullptr && *list != '\0'; list += names.back().size() + 1) {
        names.emplace_back(list);
    }
    return names;
}

std::string described(const std::vector<std::string>& names, DWORD flags,
                      const std::optional<std::int64_t>& until) {
    std::string text;
    for (const std::string& name : names) {
        text += quoted(name.c_str()) + ", ";
    }
    return text + std::to_string(flags) + ", " + (until ? std::to_string(*until) : "NULL");
}

RecoveryRequest requestFor(const Server& server, const std::vector<std::string>& names,
                           DWORD flags) {
    if (flags != kNewDbiid && flags != kKeepDbiid) {
        throw StatusError(kInvalidArgument, "flags");
    }
    if (names.empty() || names.size() > std::numeric_limits<WORD>::max()) {
        throw StatusError(kInvalidArgument, "number of databases");
    }
    RecoveryRequest request;
    request.newInstance = flags == kNewDbiid;
    for (const std::string& name : names) {
        request.files.push_back(databaseFile(server, name.c_str()));
    }
    return request;
}

/// Asks the caller for an extent.
bool askFor(LOGRESTORECALLBACKFUNCTION callback, const Id16& logId, std::uint32_t number,
            const std::string& path) {
    char buffer[kLongestLogPath] = {};
    if (path.size() >= sizeof buffer) {
        throw StatusError(kInvalidArgument, "path of the log is too long");
    }
    std::memcpy(buffer, path.c_str(), path.size());
    UNIVERSALNOTEID id = {};
    std::memcpy(&id, logId.data(), sizeof id);
    return callback(&id, number, buffer) == kOk;
}

} // namespace

STATUS NSFRecoverDatabases(char* DbNames, LOGRESTORECALLBACKFUNCTION LogRestore, DWORD Flags,
                           WORD* errDbIndex, TIMEDATE* recoveryTime) try {
    std::optional<std::int64_t> until;
    if (recoveryTime != nullptr) {
        until = fromTimeWords({recoveryTime->Innards[0], recoveryTime->Innards[1]});
    }
    const std::vector<std::string> names = namesOf(DbNames);
    return statusCall(
        "NSFRecoverDatabases", described(names, Flags, until), [&](ApiCall& call) -> Status {
            require(DbNames);
            require(reinterpret_cast<const void*>(LogRestore));
            require(errDbIndex);
            *errDbIndex = 0;
            const Server& server = runningServer();
            RecoveryRequest request = requestFor(server, names, Flags);
            request.until = until;
            request.provide = [&](const Id16& logId, std::uint32_t number,
                                  const std::filesystem::path& path) {
                return askFor(LogRestore, logId, number, path.string());
            };
            const auto blame = [&](std::size_t database) {
                *errDbIndex = static_cast<WORD>(database + 1);
                call.output("errDbIndex", *errDbIndex);
            };
            try {
                const std::vector<std::size_t> unknown = recoverDatabases(server, request);
                if (!unknown.empty()) {
                    blame(unknown.front());
                    return kNotBackedUp;
                }
            } catch (const RecoveryError& error) {
                blame(error.database());
                throw;
            }
            return kOk;
        });
} catch (const std::exception&) {
    return currentExceptionStatus(); // no memory for the arguments
}
