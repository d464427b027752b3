#include "client/commands/verification.h"

#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/index_guard.h"
#include "client/sets/known_base.h"
#include "client/sets/manifest.h"
#include "client/sets/proof_record.h"
#include "client/sets/server_runtime.h"
#include "client/store/content_check.h"
#include "client/store/object_folder.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <locale>
#include <sstream>
#include <tuple>

namespace qrtln {

bool permitted(Verification& result, const std::function<void()>& read) {
    try {
        read();
        return true;
    } catch (const ClientError& failure) {
        if (failure.exit_code() == static_cast<int>(ExitCode::damage_found)) {
            result.damage.push_back({failure.what(), fmt::format("({})", failure.hint()), {}});
            return false;
        }
        if (failure.exit_code() != static_cast<int>(ExitCode::no_permission))
            throw;
        if (std::none_of(result.denied.begin(), result.denied.end(), [&](const ClientError& known) {
                return std::string_view(known.what()) == failure.what();
            }))
            result.denied.push_back(failure);
        return false;
    }
}

namespace {

// An object by its name, or a content in blocks by its name and a place of its map.
using Reference = std::pair<std::string, MapPlace>;

// "17-48, 99": the first few of them.
std::string ranges_text(const std::set<std::uint32_t>& numbers) {
    constexpr std::size_t most = 16;
    std::vector<std::string> ranges;
    for (auto first = numbers.begin(); first != numbers.end();) {
        auto last = first;
        while (std::next(last) != numbers.end() && *std::next(last) == *last + 1)
            ++last;
        if (ranges.size() == most) {
            ranges.emplace_back("…");
            break;
        }
        ranges.push_back(first == last ? std::to_string(*first)
                                       : fmt::format("{}-{}", *first, *last));
        first = std::next(last);
    }
    return fmt::format("{}", fmt::join(ranges, ", "));
}

class Verifier {
  public:
    Verifier(Store& store, const std::vector<std::string>& sets, std::optional<ReadSubset> subset,
             Verification& result)
        : m_store(store), m_sets(sets), m_subset(subset), m_result(result) {}

    void collect_references();
    void check_objects();
    void check_contents(const StoreFiles* files);
    void name_items();
    void tell_unreferenced(const StoreFiles& files);

  private:
    void note_damage(const Reference& reference, const std::string& what,
                     const std::string& problem);
    void note_object(const std::string& hash, bool damaged);
    void check_packs(const StoreFiles* files);
    void check_map_files(const StoreFiles* files);
    void report_packs();
    bool is_read(const std::string& hash);

    Store& m_store;
    const std::vector<std::string>& m_sets;
    std::optional<ReadSubset> m_subset;
    Verification& m_result;
    // With the plain sizes that the sets give for each: one, unless a manifest lies.
    std::map<Reference, std::set<std::uint64_t>> m_references;
    ContentCheck m_content_check{m_store.packs(), throw_if_interrupted};
    std::vector<Reference> m_mapped;            // contents whose maps are good
    std::map<Reference, std::size_t> m_damaged; // where in the result's damage
};

void Verifier::collect_references() {
    for (const std::string& set : m_sets) {
        throw_if_interrupted();
        CatalogueEntry entry;
        if (!permitted(m_result, [&] { entry = load_set(m_store, set); }))
            continue;
        ++m_result.sets;
        if (!entry.manifest) {
            m_result.damage.push_back({"manifest of the set " + printable_utf8(set),
                                       printable_utf8(entry.problem),
                                       {{printable_utf8(set), "(all items)"}}});
            continue;
        }
        m_result.servers.insert(entry.manifest->server_name);
        m_result.links.add(*entry.manifest);
        for (const ManifestItem& item : entry.manifest->items)
            if (!item.object.empty())
                m_references[{item.object, item.map}].insert(item.size);
    }
}

void Verifier::note_damage(const Reference& reference, const std::string& what,
                           const std::string& problem) {
    m_damaged[reference] = m_result.damage.size();
    m_result.damage.push_back({what + " " + reference.first, problem, {}});
}

bool Verifier::is_read(const std::string& hash) {
    const bool read = !m_subset || m_subset->has(hash);
    m_result.not_read += read ? 0 : 1;
    return read;
}

void Verifier::check_objects() {
    for (const auto& [reference, sizes] : m_references) {
        if (!reference.second.file.empty())
            continue;
        if (!is_read(reference.first)) {
            if (!m_store.has_file(FileKind::object, reference.first))
                note_damage(reference, "object", "is missing");
            continue;
        }
        ObjectCheck check;
        bool read = permitted(m_result, [&, &hash = reference.first] {
            check = m_store.read_object(hash, [](Bytes) { throw_if_interrupted(); });
        });
        throw_if_interrupted();
        if (!read)
            continue;
        ++m_result.objects;
        m_result.bytes += check.size;
        note_object(reference.first, !check.problem.empty());
        if (check.problem.empty() && (sizes.size() != 1 || *sizes.begin() != check.size))
            check.problem =
                fmt::format("has {} bytes, which is not the size in the manifest", check.size);
        if (!check.problem.empty())
            note_damage(reference, "object", check.problem);
    }
}

// Beside the object, so that the next backup stores it again.
void Verifier::note_object(const std::string& hash, bool damaged) {
    if (damaged == m_store.is_noted_damaged(hash) || m_store.note_object_damage(hash, damaged) == 0)
        return;
    m_result.information.push_back(
        fmt::format("the damage of the object {} could not be noted beside it: the next backup "
                    "stores it again only after a `qrtln verify` by who may write to the store",
                    hash));
}

void Verifier::check_contents(const StoreFiles* files) {
    for (const auto& [reference, sizes] : m_references) {
        if (reference.second.file.empty())
            continue;
        std::string problem;
        bool read = permitted(m_result, [&, &content = reference, size = *sizes.begin()] {
            problem = m_content_check.add({content.first, content.second}, size);
        });
        throw_if_interrupted();
        if (!read)
            continue;
        ++m_result.contents;
        if (problem.empty() && sizes.size() != 1)
            problem = "has another size in another manifest";
        if (!problem.empty())
            note_damage(reference, "content", problem);
        else
            m_mapped.push_back(reference);
    }
    check_packs(files);
    check_map_files(files);
    for (const Reference& reference : m_mapped)
        (void)permitted(m_result, [&] {
            const BlockContent content = {reference.first, reference.second};
            std::string problem = m_subset ? m_content_check.problem_of_packs(content)
                                           : m_content_check.problem_of(content);
            if (!problem.empty())
                note_damage(reference, "content", problem);
        });
    report_packs();
}

void Verifier::check_packs(const StoreFiles* files) {
    std::set<std::string> packs;
    for (const auto& [id, used] : m_content_check.use().packs())
        packs.insert(id);
    if (files != nullptr)
        packs.insert(files->packs.begin(), files->packs.end());
    for (const std::string& id : packs) {
        if (!is_read(id)) {
            if (!m_store.has_file(FileKind::pack, id))
                m_content_check.note_missing(id);
            continue;
        }
        if (!permitted(m_result, [&] { m_content_check.check_pack(id, files != nullptr); }))
            continue;
        ++m_result.packs;
        bool whole = files != nullptr && !m_content_check.damaged().contains(id);
        if (whole && !m_store.packs().damaged_blocks(id).empty()) // it was mended
            (void)m_store.packs().note_damage(id, {});
    }
    m_result.bytes += m_content_check.checked_bytes();
}

// As a whole: a bit that the maps in it do not need is not as it was written, either.
void Verifier::check_map_files(const StoreFiles* files) {
    std::set<std::string> names;
    for (const auto& [reference, sizes] : m_references)
        if (!reference.second.file.empty())
            names.insert(reference.second.file);
    if (files != nullptr)
        names.insert(files->maps.begin(), files->maps.end());
    for (const std::string& name : names)
        (void)permitted(m_result, [&] {
            throw_if_interrupted();
            try {
                check_map_file(m_store.open_file(FileKind::map, name), name);
            } catch (const PackDamage& damage) {
                m_result.damage.push_back({"file of maps " + name, damage.problem, {}});
            }
        });
}

// Noted beside the packs, so that the next backup stores these blocks again.
void Verifier::report_packs() {
    for (const auto& [id, damaged] : m_content_check.damaged()) {
        std::string problem = damaged.problem;
        if (problem.empty())
            problem = fmt::format("has {} damaged blocks: {}", damaged.blocks.size(),
                                  ranges_text(damaged.blocks));
        m_result.damage.push_back({"pack " + id, problem, {}});
        if (!damaged.blocks.empty() && m_store.packs().note_damage(id, damaged.blocks) != 0)
            m_result.information.push_back(
                fmt::format("the damage of the pack {} could not be noted beside it: the next "
                            "backup stores its blocks again only after a `qrtln verify` by who "
                            "may write to the store",
                            id));
    }
}

// A second look at the manifests names what the damaged objects belong to: few sets have any, and
// so nothing is kept in memory for the others.
void Verifier::name_items() {
    if (m_damaged.empty())
        return;
    for (const std::string& set : m_sets) {
        CatalogueEntry entry;
        (void)permitted(m_result, [&] { entry = load_set(m_store, set); });
        if (!entry.manifest)
            continue;
        for (const ManifestItem& item : entry.manifest->items)
            if (auto found = m_damaged.find({item.object, item.map}); found != m_damaged.end())
                m_result.damage[found->second].items.emplace_back(set, item.path);
    }
}

void Verifier::tell_unreferenced(const StoreFiles& files) {
    std::set<std::string> used;
    for (const auto& [reference, sizes] : m_references) {
        used.insert(reference.second.file.empty() ? reference.first : reference.second.file);
    }
    for (const auto& [id, blocks] : m_content_check.use().packs())
        used.insert(id);
    for (auto [names, what] : {std::pair(&files.objects, "objects"),
                               {&files.packs, "packs"},
                               {&files.maps, "files of maps"}}) {
        auto unreferenced =
            std::count_if(names->begin(), names->end(),
                          [&](const std::string& name) { return !used.contains(name); });
        if (unreferenced > 0)
            m_result.information.push_back(
                fmt::format("{} {} belong to no readable set: to one that is missing or forgotten, "
                            "or a running or killed backup left them",
                            unreferenced, what));
    }
    for (const std::string& name : files.foreign)
        m_result.information.push_back(printable_utf8(name) + (name.starts_with("sets/")
                                                                   ? " is of no set"
                                                                   : " is no object of the store"));
}

// The index that the newest note of a server is about.
void check_index(Store& store, const std::string& server, Verification& result) {
    std::string problem;
    use_runtime_of(store, server);
    if (is_new_here(store))
        return; // it is on the machine of the server, if anywhere
    problem = IndexGuard(store, server).problem();
    if (!problem.empty()) // a backup that ended meanwhile changes index and note, one by one
        problem = IndexGuard(store, server).problem();
    bool told = std::any_of(result.damage.begin(), result.damage.end(),
                            [&](const Damage& damage) { return damage.what == problem; });
    if (!problem.empty() && !told)
        result.damage.push_back({problem, "(take a full backup)", {}});
}

} // namespace

StoreFiles list_store_files(Store& store, Verification& result) {
    StoreFiles files;
    try {
        (void)permitted(result, [&] {
            files.objects = store.objects(&files.foreign);
            files.packs = store.packs().packs(&files.foreign);
            files.maps = store.packs().maps(&files.foreign);
        });
    } catch (const ClientError& failure) { // what the sets refer to is looked at all the same
        result.damage.push_back({"objects", failure.what(), {}});
    }
    return files;
}

std::optional<ReadSubset> ReadSubset::parse(const std::string& text) {
    constexpr std::uint64_t most_parts = 1000000;
    ReadSubset subset;
    std::string behind;
    std::istringstream words(text);
    words.imbue(std::locale::classic());
    char sign = 0;
    if (text.empty() || std::isdigit(static_cast<unsigned char>(text[0])) == 0)
        return std::nullopt;
    if (text.find('/') != std::string::npos) {
        words >> subset.m_part >> sign >> subset.m_parts;
        if (!words || words >> behind || sign != '/' || subset.m_part < 1 ||
            subset.m_part > subset.m_parts || subset.m_parts > most_parts)
            return std::nullopt;
        return subset;
    }
    double percent = 0;
    words >> percent >> sign;
    if (!words || words >> behind || sign != '%' || percent > 100)
        return std::nullopt;
    subset.m_share = percent / 100;
    return subset;
}

bool ReadSubset::has(const std::string& hash) {
    constexpr int digits = 8;
    if (m_parts > 0)
        return std::stoul(hash.substr(0, digits), nullptr, 16) % m_parts == m_part - 1;
    return std::uniform_real_distribution<double>(0, 1)(m_chance) < m_share;
}

void verify_sets(Store& store, const std::vector<std::string>& sets, const StoreFiles* files,
                 std::optional<ReadSubset> subset, Verification& result) {
    Verifier verifier(store, sets, subset, result);
    verifier.collect_references();
    verifier.check_objects();
    verifier.check_contents(files);
    verifier.name_items();
    if (files != nullptr)
        verifier.tell_unreferenced(*files);
}

void verify_notes(Store& store, const std::vector<std::string>& sets, Verification& result) {
    for (const std::string& set : sets) {
        std::string problem;
        bool read = permitted(result, [&] { (void)load_proof(store, set, problem); });
        if (read && !problem.empty())
            result.damage.push_back({"the proof of the set " + set, problem, {}});
        problem.clear();
        if (permitted(result, [&] { problem = index_note_problem(store, set); }) &&
            !problem.empty())
            result.damage.push_back({problem, "(a full backup leaves a new one)", {}});
    }
    for (const std::string& server : result.servers)
        permitted(result, [&] { check_index(store, server, result); });
}

} // namespace qrtln
