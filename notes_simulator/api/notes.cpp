// Single notes: copying, deleting, and who has not read them.
#include "notes_simulator/api/call.h"
#include "notes_simulator/base/text_translation.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/notes_simulator.h"

#include <algorithm>
#include <cstring>

using namespace notes_sim;

namespace {

constexpr std::size_t kLongestUserName = 256; // without the NUL

/// Throws StatusError(kWrongDatabaseId) when an id is given that is not the expected one.
void checkId(const DBID* given, const Id8& expected) {
    static_assert(sizeof(DBID) == sizeof(Id8));
    if (given != nullptr && std::memcmp(given, expected.data(), expected.size()) != 0) {
        throw StatusError(kWrongDatabaseId, "");
    }
}

/// A user's name as databases keep it. Throws StatusError(kInvalidArgument) for none.
std::string userName(const char* name, WORD length) {
    require(name);
    if (length == 0) {
        throw StatusError(kInvalidArgument, "user name");
    }
    return translateText(Translation::kLmbcsToUtf8, std::string_view(name, length), 4096);
}

std::string quotedName(const char* name, WORD length) {
    return name == nullptr ? "NULL" : quoted(std::string(name, length).c_str());
}

NoteChange mark(ChangeKind kind, NoteId id, const std::string& user) {
    NoteChange change;
    change.kind = kind;
    change.note.id = id;
    change.note.subject = user;
    return change;
}

/// What leads from one set of unread notes to another.
std::vector<NoteChange> difference(const std::set<NoteId>& before, const std::set<NoteId>& after,
                                   const std::string& user) {
    std::vector<NoteChange> changes;
    for (const NoteId id : after) {
        if (!before.contains(id)) {
            changes.push_back(mark(ChangeKind::kMarkUnread, id, user));
        }
    }
    for (const NoteId id : before) {
        if (!after.contains(id)) {
            changes.push_back(mark(ChangeKind::kMarkRead, id, user));
        }
    }
    return changes;
}

} // namespace

STATUS NSFDbCopyNote(DBHANDLE hSrcDB, DBID* SrcDBID, DBID* SrcReplicaID, NOTEID SrcNoteID,
                     DBHANDLE hDstDB, DBID* DstDBID, DBID* DstReplicaID, NOTEID* retDstNoteID,
                     WORD* retNoteClass) {
    const std::string arguments =
        std::to_string(hSrcDB) + ", " + std::to_string(SrcNoteID) + ", " + std::to_string(hDstDB);
    return statusCall("NSFDbCopyNote", arguments, [&](ApiCall& call) -> Status {
        Database source = connect(hSrcDB);
        Database destination = connect(hDstDB);
        const DatabaseHeader from = source.header();
        const DatabaseHeader to = destination.header();
        checkId(SrcDBID, from.dbid);
        checkId(SrcReplicaID, from.replica);
        checkId(DstDBID, to.dbid);
        checkId(DstReplicaID, to.replica);
        auto note = source.note(SrcNoteID);
        if (!note) {
            throw StatusError(kNoSuchNote,
                              source.file().string() + ": note " + std::to_string(SrcNoteID));
        }
        NoteChange change;
        change.mustBeNew = true;
        change.note = *std::move(note);
        const Commit commit = commitChanges(runningServer(), destination, {std::move(change)});
        const Note& copied = commit.changes.front().note;
        if (retDstNoteID != nullptr) {
            *retDstNoteID = copied.id;
        }
        if (retNoteClass != nullptr) {
            *retNoteClass = copied.noteClass;
        }
        call.output("commit", commit.number);
        return kOk;
    });
}

STATUS NSFNoteDelete(DBHANDLE hDB, NOTEID NoteID, WORD UpdateFlags) {
    return statusCall(
        "NSFNoteDelete",
        std::to_string(hDB) + ", " + std::to_string(NoteID) + ", " + std::to_string(UpdateFlags),
        [&](ApiCall& call) -> Status {
            Database database = connect(hDB);
            NoteChange change;
            change.kind = ChangeKind::kDelete;
            change.note.id = NoteID;
            const Commit commit = commitChanges(runningServer(), database, {std::move(change)});
            call.output("commit", commit.number);
            return kOk;
        });
}

STATUS NSFDbGetUnreadNoteTable(DBHANDLE hDB, char* UserName, WORD UserNameLength,
                               BOOL fCreateIfNotAvailable, DHANDLE* rethUnreadList) {
    return statusCall("NSFDbGetUnreadNoteTable",
                      std::to_string(hDB) + ", " + quotedName(UserName, UserNameLength) + ", " +
                          std::to_string(fCreateIfNotAvailable),
                      [&](ApiCall& call) -> Status {
                          require(rethUnreadList);
                          *rethUnreadList = 0;
                          const auto ids =
                              connect(hDB).unreadOf(userName(UserName, UserNameLength));
                          if (ids.empty() && fCreateIfNotAvailable == 0) {
                              return kNoUnreadTable;
                          }
                          *rethUnreadList = process().tables.add(std::make_unique<IdTable>(ids));
                          call.output("hTable", *rethUnreadList);
                          call.output("entries", ids.size());
                          return kOk;
                      });
}

STATUS NSFDbUpdateUnread(DBHANDLE hDB, DHANDLE hUnreadList) {
    return statusCall("NSFDbUpdateUnread", std::to_string(hDB) + ", " + std::to_string(hUnreadList),
                      [&](ApiCall& call) -> Status {
                          Database database = connect(hDB);
                          IdTable& table = process().tables.get(hUnreadList);
                          Statement present(database.connection(),
                                            "SELECT 1 FROM notes WHERE note_id=?1");
                          table.keepIf([&present](NoteId id) {
                              const bool found = present.bind(1, std::int64_t{id}).step();
                              present.reset();
                              return found;
                          });
                          call.output("entries", table.entries());
                          return kOk;
                      });
}

STATUS NSFDbSetUnreadNoteTable(DBHANDLE hDB, char* UserName, WORD UserNameLength, BOOL fFlushToDisk,
                               DHANDLE hOriginalUnreadList, DHANDLE hUnreadList) {
    return statusCall("NSFDbSetUnreadNoteTable",
                      std::to_string(hDB) + ", " + quotedName(UserName, UserNameLength) + ", " +
                          std::to_string(fFlushToDisk) + ", " +
                          std::to_string(hOriginalUnreadList) + ", " + std::to_string(hUnreadList),
                      [&](ApiCall& call) -> Status {
                          Database database = connect(hDB);
                          auto changes = difference(process().tables.get(hOriginalUnreadList).ids(),
                                                    process().tables.get(hUnreadList).ids(),
                                                    userName(UserName, UserNameLength));
                          call.output("changes", changes.size());
                          if (!changes.empty()) {
                              commitChanges(runningServer(), database, std::move(changes));
                          }
                          return kOk;
                      });
}

STATUS SECKFMGetUserName(char* retUserName) {
    return statusCall("SECKFMGetUserName", "", [&](ApiCall& call) -> Status {
        require(retUserName);
        const Server& server = runningServer();
        std::error_code error;
        const std::string idFile = server.ini.get("KeyFilename").value_or("user.id");
        if (!std::filesystem::exists(server.resolve(idFile), error)) {
            throw StatusError(kNoSuchFile, idFile);
        }
        const std::string name =
            translateText(Translation::kNativeToLmbcs, server.userName(), kLongestUserName);
        std::memcpy(retUserName, name.c_str(), name.size() + 1);
        call.output("name", name.c_str());
        return kOk;
    });
}
