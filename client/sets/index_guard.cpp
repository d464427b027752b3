#include "client/sets/index_guard.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/ownership.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <utility>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int note_format = 1;
constexpr const char* aside_suffix = ".damaged";
constexpr std::size_t maximal_key = 256; // bytes

// The hash of a file, empty when there is none. Throws ClientError(failed) when it cannot be read.
std::string hash_of_file(const std::string& file) {
    std::optional<std::string> content = read_small_file(AT_FDCWD, file, maximal_index);
    if (content)
        return sha256_hex(*content);
    if (errno == ENOENT)
        return {};
    int error = errno;
    throw_if_no_permission("read the index of databases", file, error);
    throw ClientError(ExitCode::failed, "cannot read the index of databases " + for_terminal(file) +
                                            ": " + system_error_text(error));
}

json servers_to_json(const std::vector<std::string>& servers) {
    json list = json::array();
    for (const std::string& server : servers)
        put_bytes(list.emplace_back(json::object()), "data_directory", server);
    return list;
}

std::vector<std::string> servers_of(const json& document, const char* name) {
    std::vector<std::string> servers;
    for (const json& server : document.at(name))
        servers.push_back(get_bytes(server, "data_directory"));
    return servers;
}

std::string serialize(const IndexNote& note) {
    json document = {{"format", note_format},
                     {"set", note.set},
                     {"hashes", note.hashes},
                     {"servers", servers_to_json(note.servers)}};
    if (note.hashes.size() > 1)
        document["servers_after"] = servers_to_json(note.servers_after);
    return to_canonical(document);
}

std::optional<IndexNote> parse(const std::string& bytes, const std::string& set,
                               std::string& problem) {
    std::optional<json> document = from_canonical(bytes, problem);
    if (!document)
        return std::nullopt;
    try {
        IndexNote note;
        if (document->at("format").get<int>() != note_format)
            throw std::runtime_error("has a format that this version of qrtln does not know");
        note.set = document->at("set").get<std::string>();
        note.hashes = document->at("hashes").get<std::vector<std::string>>();
        note.servers = servers_of(*document, "servers");
        note.servers_after = document->contains("servers_after")
                                 ? servers_of(*document, "servers_after")
                                 : note.servers;
        if (note.set == set)
            return note;
        problem = "is that of another set";
    } catch (const std::exception& failure) {
        problem = printable_utf8(failure.what());
    }
    return std::nullopt;
}

// The note beside a set, or nothing; `problem` is set for one that is damaged.
std::optional<IndexNote> note_of(Store& store, const std::string& set, std::string& problem) {
    std::optional<IndexNote> note;
    if (std::optional<std::string> bytes = store.read_note(set, SetNote::index, problem))
        note = parse(*bytes, set, problem);
    if (!note && !problem.empty())
        problem = "the note about the index beside the set " + set + " " + problem;
    return note;
}

// The newest note of all sets of a server, likewise. A set that cannot be read may be of any.
std::optional<IndexNote> newest_note(Store& store, const std::string& server,
                                     std::string& problem) {
    std::vector<std::string> sets = store.set_names();
    for (auto set = sets.rbegin(); set != sets.rend(); ++set) {
        std::string problem_here;
        std::optional<IndexNote> note = note_of(store, *set, problem_here);
        if (!note && problem_here.empty())
            continue;
        CatalogueEntry entry = load_set(store, *set);
        if (entry.manifest && entry.manifest->server_name != server)
            continue;
        problem = problem_here;
        return note;
    }
    return std::nullopt;
}

} // namespace

std::string index_note_problem(Store& store, const std::string& set) {
    std::string problem;
    (void)note_of(store, set, problem);
    return problem;
}

bool fits_index(const std::string& path) {
    if (path.find_first_of("=\r\n") != std::string::npos)
        return false;
    // On its way it is translated to the server's characters, which are longer for most: at most
    // two bytes for a control character, three for others, six for one of four bytes.
    bool utf8 = is_utf8(path);
    std::size_t longest = 0;
    for (char character : path) {
        auto byte = static_cast<unsigned char>(character);
        if (byte < 0x80)
            longest += byte < 0x20 || byte == 0x7F ? 2 : 1;
        else if (!utf8 || byte >= 0xC0)
            longest += byte >= 0xF0 ? 6 : 3;
    }
    return longest < maximal_key;
}

IndexGuard::IndexGuard(Store& store, const std::string& server)
    : m_store(store), m_file(store.runtime_directory() + index_name) {
    m_note = newest_note(store, server, m_problem);
    if (!m_note)
        return;
    std::string hash = hash_of_index();
    const std::vector<std::string>& expected = m_note->hashes;
    if (auto found = std::find(expected.begin(), expected.end(), hash); found != expected.end()) {
        if (found != expected.begin())
            m_note->servers = m_note->servers_after;
        m_note->hashes = {hash};
        return;
    }
    m_problem = "the index of databases " + for_terminal(m_file) +
                (hash.empty() ? " is missing, although the set " + m_note->set + " left one"
                              : " is not the one that the set " + m_note->set + " left");
}

std::string IndexGuard::hash_of_index() const {
    return hash_of_file(m_file);
}

std::string IndexGuard::problem_for(const std::string& data_directory) const {
    if (!m_problem.empty() || !m_note)
        return m_problem;
    const std::vector<std::string>& servers = m_note->servers;
    if (std::find(servers.begin(), servers.end(), data_directory) != servers.end())
        return {};
    return "the index of databases " + for_terminal(m_file) +
           " has not all entries of this server: no full backup of it was ended since it was "
           "begun, "
           "or a backup did not end";
}

void IndexGuard::set_aside() {
    std::string aside = m_file + aside_suffix;
    if (::rename(m_file.c_str(), aside.c_str()) != 0 && errno != ENOENT)
        throw ClientError(ExitCode::failed, "cannot put the damaged index " + for_terminal(m_file) +
                                                " aside: " + system_error_text(errno));
    m_problem.clear();
    m_note = IndexNote{}; // nothing of the old one is relied on
}

void IndexGuard::flush_folder() const {
    if (int error = flush_directory(AT_FDCWD, folder_of(m_file)); error != 0)
        throw ClientError(ExitCode::failed, "cannot flush the folder of the index of databases " +
                                                for_terminal(m_file) + ": " +
                                                system_error_text(error));
}

void IndexGuard::expect_close(const std::string& set, const IndexChange& change) {
    IndexNote note = m_note.value_or(IndexNote{});
    note.set = set;
    // A killed run may have put it in place without flushing the folder: it must not become the
    // older one again after it was noted.
    flush_folder();
    std::string before = hash_of_index();
    m_lent = change.folder.empty() || change.folder + index_name == m_file
                 ? std::string()
                 : change.folder + index_name;
    std::string working_copy =
        (m_lent.empty() ? m_file : m_lent) + "." + std::to_string(change.child);
    std::string after = hash_of_file(working_copy);
    if (after.empty() && change.has_entries)
        throw ClientError(ExitCode::server_error,
                          "the module's working copy of the index of databases " +
                              for_terminal(working_copy) + " is gone");
    if (!m_problem.empty() || change.begun_anew)
        note.servers.clear();
    note.hashes = {before};
    note.servers_after = note.servers;
    bool changes = !after.empty() && after != before; // without a working copy it stays as it is
    if (changes)
        note.hashes.push_back(after);
    // Its entries are complete in the index as the close leaves it, and in no other.
    std::vector<std::string>& servers = changes ? note.servers_after : note.servers;
    if (change.whole_full && m_problem.empty() &&
        std::find(servers.begin(), servers.end(), change.data_directory) == servers.end())
        servers.push_back(change.data_directory);
    m_servers_before = note.servers;
    // The store has the new one only when all is over. After a crash before that entries of this
    // set are missing in the old one, although the server was told that it is over.
    if (changes && !m_lent.empty())
        std::erase(note.servers, change.data_directory);
    m_store.write_note(set, SetNote::index, serialize(note));
    m_note = std::move(note);
}

// A crash before this leaves the old one, which the note has, too. Nothing but what was noted is
// taken: its folder is another user's.
void IndexGuard::take_index_back() {
    std::optional<std::string> content = read_small_file(AT_FDCWD, m_lent, maximal_index);
    if (!content || m_note->hashes.size() < 2 || sha256_hex(*content) != m_note->hashes.back())
        return;
    // One that is a symbolic link stays one.
    int error = replace_file(real_path(m_file).value_or(m_file), *content);
    throw_if_no_permission("replace the index of databases", m_file, error, true);
    if (error != 0)
        throw ClientError(ExitCode::failed, "cannot replace the index of databases " +
                                                for_terminal(m_file) + ": " +
                                                system_error_text(error));
}

std::string IndexGuard::check_closed(const std::string& set, const std::string& data_directory,
                                     bool closed) {
    (void)give_to_owner_of_folder(m_file); // the module makes a new one as whoever runs it
    if (!m_note || m_note->set != set)
        return {};
    if (!m_lent.empty())
        take_index_back();
    IndexNote note = *m_note;
    std::string hash = hash_of_index();
    std::string problem;
    if (hash == note.hashes.back()) {
        if (note.hashes.size() == 1)
            return {};
        note.servers = note.servers_after;
    } else if (hash == note.hashes.front()) {
        if (closed) {
            problem = "the module did not put the new index of databases in the place of " +
                      for_terminal(m_file);
            std::erase(note.servers, data_directory);
        } else {
            note.servers = m_servers_before;
        }
    } else {
        m_problem = "the index of databases " + for_terminal(m_file) +
                    " is not the one that this set should have left";
        return m_problem;
    }
    note.hashes = {hash};
    m_note = std::move(note);
    m_unwritten = true;
    return problem;
}

void IndexGuard::note_closed(const std::string& set) {
    if (!std::exchange(m_unwritten, false))
        return;
    flush_folder();
    m_store.write_note(set, SetNote::index, serialize(*m_note));
}

} // namespace qrtln
