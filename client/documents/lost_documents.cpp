#include "client/documents/lost_documents.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int lost_documents_format = 1;
constexpr std::size_t maximal_lost_file = std::size_t{64} << 20;

json to_json(const std::vector<LostDocuments>& entries) {
    json document = {{"format", lost_documents_format}, {"databases", json::array()}};
    for (const LostDocuments& lost : entries) {
        json& entry = document["databases"].emplace_back(json::object());
        put_bytes(entry, "data_directory", lost.data_directory);
        put_bytes(entry, "path", lost.path);
        entry["set"] = lost.set;
        entry["since"] = lost.since;
        entry["ids"] = lost.ids;
    }
    return document;
}

std::vector<LostDocuments> lost_from_json(const json& document) {
    if (document.at("format").get<int>() != lost_documents_format)
        throw std::runtime_error("has a format that this version of qrtln does not know");
    std::vector<LostDocuments> entries;
    for (const json& entry : document.at("databases"))
        entries.push_back({get_bytes(entry, "data_directory"), get_bytes(entry, "path"),
                           entry.at("set").get<std::string>(),
                           entry.at("since").get<std::int64_t>(),
                           entry.at("ids").get<std::vector<NoteId>>()});
    return entries;
}

} // namespace

LostDocumentsFile::LostDocumentsFile(const Store& store)
    : m_file(store.runtime_directory() + "/lost_documents.json") {
    std::optional<std::string> content = read_small_file(AT_FDCWD, m_file, maximal_lost_file);
    if (!content && errno == ENOENT)
        return;
    int error = content ? 0 : errno;
    throw_if_no_permission("read the note of documents that are not back", m_file, error);
    std::string problem = content ? "" : "cannot be read: " + system_error_text(error);
    std::optional<json> document;
    if (content)
        document = from_canonical(*content, problem);
    try {
        if (document) {
            m_entries = lost_from_json(*document);
            return;
        }
    } catch (const std::exception& failure) {
        problem = printable_utf8(failure.what());
    }
    throw ClientError(ExitCode::failed,
                      fmt::format("the note of documents that are not back, {}, {}",
                                  for_terminal(m_file), problem),
                      "what `qrtln documents deleted` brings back is not lost; then move the file "
                      "away");
}

std::optional<LostDocuments> LostDocumentsFile::of(const std::string& data_directory,
                                                   const std::string& path) const {
    for (const LostDocuments& entry : m_entries)
        if (entry.data_directory == data_directory && entry.path == path)
            return entry;
    return std::nullopt;
}

std::vector<std::string> LostDocumentsFile::sets() const {
    std::vector<std::string> sets;
    for (const LostDocuments& entry : m_entries)
        sets.push_back(entry.set);
    return sets;
}

void LostDocumentsFile::put(const LostDocuments& lost) {
    std::vector<LostDocuments> entries = m_entries;
    std::erase_if(entries, [&](const LostDocuments& entry) {
        return entry.data_directory == lost.data_directory && entry.path == lost.path;
    });
    if (!lost.ids.empty())
        entries.push_back(lost);
    int error = 0;
    if (!entries.empty())
        error = replace_file(m_file, to_canonical(to_json(entries)));
    else if (!m_entries.empty())
        error =
            ::unlink(m_file.c_str()) == 0 ? flush_directory(AT_FDCWD, folder_of(m_file)) : errno;
    throw_if_no_permission("write the note of documents that are not back", m_file, error, true);
    if (error != 0)
        throw ClientError(
            ExitCode::failed,
            fmt::format("cannot write the note of documents that are not back, {}: {}",
                        for_terminal(m_file), system_error_text(error)));
    m_entries = std::move(entries);
}

} // namespace qrtln
