#include "client/sets/distrusted_bases.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/permission.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <fcntl.h>
#include <optional>
#include <vector>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr int list_format = 1;
constexpr std::size_t maximal_list = std::size_t{16} << 20;

std::optional<std::set<std::string>> parse(const std::string& bytes) {
    std::string problem;
    std::optional<json> document = from_canonical(bytes, problem);
    try {
        if (document && document->at("format").get<int>() == list_format)
            return document->at("sets").get<std::set<std::string>>();
    } catch (const json::exception&) {
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace

DistrustedBases::DistrustedBases(Store& store)
    : m_file(store.runtime_directory() + "/distrusted.json") {
    std::optional<std::string> bytes = read_small_file(AT_FDCWD, m_file, maximal_list);
    if (!bytes && errno == ENOENT)
        return;
    if (int error = bytes ? 0 : errno; error != 0) {
        throw_if_no_permission("read the list of bases", m_file, error);
        throw ClientError(ExitCode::failed,
                          "cannot read " + for_terminal(m_file) + ": " + system_error_text(error));
    }
    if (std::optional<std::set<std::string>> sets = parse(*bytes)) {
        m_sets = std::move(*sets);
        return;
    }
    for (const std::string& set : store.set_names())
        if (set.ends_with("-full"))
            m_sets.insert(set);
    write();
}

void DistrustedBases::add(const std::string& set) {
    if (m_sets.insert(set).second)
        write();
}

void DistrustedBases::write() const {
    std::string bytes = to_canonical({{"format", list_format}, {"sets", m_sets}});
    int error = replace_file(m_file, bytes);
    throw_if_no_permission("write the list of bases", m_file, error, true);
    if (error != 0)
        throw ClientError(ExitCode::failed,
                          "cannot write " + for_terminal(m_file) + ": " + system_error_text(error));
}

} // namespace qrtln
