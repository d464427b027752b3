#include "notes_simulator/domino_sim/attachment.h"

#include "notes_simulator/base/byte_codec.h"
#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/domino_sim/cli.h"

#include <openssl/evp.h>

#include <fstream>
#include <iterator>
#include <map>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace domino_sim {

namespace {

// What the body of a note that refers to an object begins with; the object's name follows.
constexpr std::string_view kReference = "attachment object ";
constexpr std::size_t kNameLength = 40;

std::string nameOf(const std::string& content) {
    std::uint8_t digest[EVP_MAX_MD_SIZE] = {};
    unsigned length = 0;
    if (EVP_Digest(content.data(), content.size(), digest, &length, EVP_sha1(), nullptr) != 1) {
        throw StatusError(kOutOfMemory, "SHA-1");
    }
    return hex({digest, length});
}

std::string readAll(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace

fs::path objectFolder(const Server& server) {
    return server.resolve(server.ini.get("DAOSBasePath").value_or("DAOS"));
}

NoteChange attach(const Server& server, ContentGenerator& content, std::size_t size) {
    const std::string bytes = content.words(size);
    const std::string name = nameOf(bytes);
    const fs::path file = objectFolder(server) / "0001" / (name + ".nlo");
    if (!fs::exists(file)) { // notes share it
        fs::create_directories(file.parent_path());
        replaceFile(file, bytes);
    }
    NoteChange change = content.newNote();
    const std::string body = std::string(kReference) + name + "\n";
    change.note.body.assign(body.begin(), body.end());
    return change;
}

std::size_t checkObjects(Database& database, const std::vector<fs::path>& folders) {
    std::map<std::string, fs::path> objects; // by name
    for (const fs::path& folder : folders) {
        if (fs::is_directory(folder)) {
            for (const auto& entry : fs::recursive_directory_iterator(folder)) {
                if (entry.path().extension() == ".nlo") {
                    objects.try_emplace(entry.path().stem().string(), entry.path());
                }
            }
        }
    }
    std::size_t references = 0;
    std::string missing;
    database.eachNote([&](const Note& note) {
        const std::string body(note.body.begin(), note.body.end());
        if (!body.starts_with(kReference)) {
            return;
        }
        ++references;
        const std::string name = body.substr(kReference.size(), kNameLength);
        const auto found = objects.find(name);
        if (found == objects.end() || nameOf(readAll(found->second)) != name) {
            missing += "\n  note " + std::to_string(note.id) + " refers to " + name + ".nlo" +
                       (found == objects.end() ? ", which is missing" : ", which is damaged");
        }
    });
    if (!missing.empty()) {
        throw CheckFailed(database.file().string() + ": attachments are lost:" + missing);
    }
    return references;
}

} // namespace domino_sim
