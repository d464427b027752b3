#include "notes_simulator/domino_sim/database_state.h"

#include "notes_simulator/base/status.h"

#include <openssl/evp.h>

#include <memory>

using namespace notes_sim;

namespace domino_sim {

namespace {

constexpr std::size_t kShortDigest = 32; // digits; a manifest has one for each note changed

class Sha256 {
  public:
    Sha256() : m_context(EVP_MD_CTX_new()) {
        if (!m_context || EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1) {
            throw StatusError(kOutOfMemory, "SHA-256");
        }
    }

    void add(std::span<const std::uint8_t> bytes) {
        EVP_DigestUpdate(m_context.get(), bytes.data(), bytes.size());
    }

    std::string digits() {
        std::uint8_t digest[EVP_MAX_MD_SIZE] = {};
        unsigned length = 0;
        EVP_DigestFinal_ex(m_context.get(), digest, &length);
        return hex({digest, length});
    }

  private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> m_context;
};

std::string unreadMarks(Database& database) {
    std::string text;
    Statement read(database.connection(), "SELECT user,note_id FROM unread ORDER BY user,note_id");
    while (read.step()) {
        text += read.text(0) + " " + std::to_string(read.integer(1)) + "\n";
    }
    return text;
}

std::string checkIntegrity(Database& database) {
    std::string result;
    Statement check(database.connection(), "PRAGMA integrity_check(5)");
    while (check.step()) {
        result += (result.empty() ? "" : "; ") + check.text(0);
    }
    return result;
}

void readContent(Database& database, DatabaseState& state) {
    state.header = database.header();
    database.eachNote([&state](const Note& note) {
        state.notes[note.id] = digestOf({ChangeKind::kWrite, note});
    });
    database.eachStub([&state](const Stub& stub) {
        NoteChange change;
        change.kind = ChangeKind::kDelete;
        change.note.id = stub.id;
        change.note.unid = stub.unid;
        change.note.noteClass = stub.noteClass;
        change.note.modified = stub.deleted;
        state.stubs[stub.id] = digestOf(change);
    });
    std::string all;
    for (const auto& [id, digest] : state.notes) {
        all += "note " + std::to_string(id) + " " + digest + "\n";
    }
    for (const auto& [id, digest] : state.stubs) {
        all += "stub " + std::to_string(id) + " " + digest + "\n";
    }
    all += unreadMarks(database);
    state.digest = sha256(asBytes(all));
}

} // namespace

std::string sha256(std::span<const std::uint8_t> bytes) {
    Sha256 sum;
    sum.add(bytes);
    return sum.digits();
}

std::string digestOf(const NoteChange& change) {
    return sha256(encodeChanges({change})).substr(0, kShortDigest);
}

DatabaseState readState(Database& database, bool check) {
    DatabaseState state;
    try {
        SqlTransaction transaction(database.connection(), "BEGIN");
        if (check) {
            state.integrity = checkIntegrity(database);
        }
        readContent(database, state);
        transaction.commit();
    } catch (const StatusError& error) {
        if (!check) {
            throw;
        }
        state.digest.clear();
        if (state.integrity.empty() || state.integrity == "ok") {
            state.integrity = error.what();
        }
    }
    return state;
}

} // namespace domino_sim
