// `qrtln extract SET PATH… --to DIR`: what a set holds, written to a folder by the store alone.

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/restore/created_folders.h"
#include "client/restore/object_content.h"
#include "client/restore/operation.h"
#include "client/restore/safe_file.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"
#include "client/sets/set_items.h"
#include "client/store/canonical_json.h"
#include "client/store/store.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>
#include <map>
#include <optional>
#include <set>

namespace qrtln {

namespace {

constexpr const char* extract_help =
    R"(Write databases, files and folders of a set to a folder, or the whole set with --all. Needs
nothing but the store: no server, no notes.ini.)";

struct ExtractOptions : StoreOptions {
    std::string set;
    std::vector<std::string> paths; // full, or below the set's data directory
    bool all = false;               // the whole set
    std::string to;
};

class Extraction {
  public:
    Extraction(Store& store, const Manifest& manifest, std::string to)
        : m_store(store), m_manifest(manifest), m_to(std::move(to)) {}
    void run(const std::vector<const ManifestItem*>& items);
    int exit_code() const;
    int report(bool json) const;

    std::vector<std::string> notes; // for the summary

  private:
    struct Planned {
        const ManifestItem* item;
        std::string relative; // to the folder that is written to
    };

    std::string relative_of(const ManifestItem& item) const;
    void plan(const std::vector<const ManifestItem*>& items);
    std::string problem_of(const Planned& planned) const;
    void require_enough_room() const;
    void write_all_items();
    void create_folder(const Planned& planned);
    void write_item(const Planned& planned);
    void give_folder_metadata_back();
    void fail(const ManifestItem& item, const std::string& reason);
    std::string shown(const std::string& relative) const {
        return m_to + (relative.empty() ? "" : "/") + relative;
    }

    Store& m_store;
    const Manifest& m_manifest;
    std::string m_to; // absolute
    std::vector<Planned> m_planned;
    std::optional<SafeFolder> m_root; // while it is there
    CreatedFolders m_created;
    std::optional<Progress> m_progress;
    std::vector<std::string> m_extracted; // full paths
    std::vector<FailedRestore> m_failed;
    std::vector<FailedRestore> m_damaged;
    std::uint64_t m_bytes = 0;
    std::string m_no_permission; // the first thing of the store that may not be read
};

// What is outside the data directory keeps its whole path.
std::string Extraction::relative_of(const ManifestItem& item) const {
    const std::string& data = m_manifest.data_directory;
    return path_below(item.path, is_below(item.path, data) ? data : "/");
}

void Extraction::fail(const ManifestItem& item, const std::string& reason) {
    print_message(fmt::format("failed: {}: {}", for_terminal(item.path), for_terminal(reason)));
    m_failed.push_back({item.path, reason});
}

// Why an item cannot be written, known before anything is.
std::string Extraction::problem_of(const Planned& planned) const {
    const ManifestItem& item = *planned.item;
    if (item.status != ItemStatus::stored)
        return "it is not in the set: " + item.reason;
    if (std::string problem = path_problem(item.path); !problem.empty())
        return problem;
    bool folder = item.kind == ItemKind::directory;
    if (planned.relative.empty() && !folder)
        return "its path is that of the data directory";
    if (!m_root)
        return {};
    std::string problem;
    std::optional<struct stat> there = m_root->look_at(planned.relative, problem);
    if (!problem.empty() || !there || (folder && S_ISDIR(there->st_mode)))
        return problem;
    return "something is there already: " + shown(planned.relative);
}

void Extraction::plan(const std::vector<const ManifestItem*>& items) {
    std::set<const ManifestItem*> seen;
    std::map<std::string, std::string> places; // relative names, and who has them
    for (const ManifestItem* item : items) {
        if (!seen.insert(item).second)
            continue;
        Planned planned{item, relative_of(*item)};
        std::string problem = problem_of(planned);
        if (problem.empty() && item->kind != ItemKind::directory) {
            auto [place, is_free] = places.try_emplace(planned.relative, item->path);
            if (!is_free)
                problem =
                    fmt::format("its place is that of {}: extract it by itself", place->second);
        }
        problem.empty() ? m_planned.push_back(std::move(planned)) : fail(*item, problem);
    }
}

void Extraction::require_enough_room() const {
    RoomCount rooms;
    for (const Planned& planned : m_planned) {
        std::uint64_t& needed = rooms.at(m_to).needed;
        std::uint64_t size = planned.item->object.empty() ? 0 : planned.item->size;
        needed += std::min(size, std::numeric_limits<std::uint64_t>::max() - needed);
    }
    require_room(rooms.list(), "--to");
}

void Extraction::run(const std::vector<const ManifestItem*>& items) {
    if (exists(m_to))
        m_root.emplace(m_to);
    plan(items);
    require_enough_room();
    if (m_planned.empty())
        return;
    bool created = !m_root;
    if (created) {
        if (int error = ::mkdir(m_to.c_str(), 0700) == 0 ? 0 : errno; error != 0)
            throw ClientError(ExitCode::failed,
                              fmt::format("cannot create the folder {}: {}", for_terminal(m_to),
                                          system_error_text(error)),
                              error == ENOENT ? "create the folder above it first" : "");
        m_root.emplace(m_to);
    }
    try {
        write_all_items();
    } catch (...) {
        m_progress.reset();
        if (created)
            ::rmdir(m_to.c_str()); // when nothing was written
        throw;
    }
    m_progress.reset();
    if (created)
        ::rmdir(m_to.c_str());
}

void Extraction::write_all_items() {
    m_progress.emplace(static_cast<std::uint64_t>(
        std::count_if(m_planned.begin(), m_planned.end(), [](const Planned& planned) {
            return planned.item->kind == ItemKind::database;
        })));
    for (const Planned& planned : m_planned) {
        throw_if_interrupted();
        if (planned.item->kind == ItemKind::database)
            m_progress->next_database();
        planned.item->kind == ItemKind::directory ? create_folder(planned) : write_item(planned);
    }
    give_folder_metadata_back();
}

void Extraction::create_folder(const Planned& planned) {
    std::string problem;
    if (!m_root->open_folder(planned.relative, problem, m_created.callback(m_to)))
        fail(*planned.item, problem);
    else
        m_extracted.push_back(shown(planned.relative));
}

void Extraction::write_item(const Planned& planned) {
    const ManifestItem& item = *planned.item;
    std::size_t slash = planned.relative.rfind('/');
    std::string problem;
    FileDescriptor folder =
        m_root->open_folder(slash == std::string::npos ? "" : planned.relative.substr(0, slash),
                            problem, m_created.callback(m_to));
    if (!folder) {
        fail(item, problem);
        return;
    }
    SafeFile file(std::move(folder), name_of(planned.relative));
    problem = file.create();
    WrittenContent written;
    if (problem.empty()) {
        try {
            written = write_content(m_store, item, file, [this](std::uint64_t bytes) {
                throw_if_interrupted();
                m_progress->add_bytes(bytes);
            });
        } catch (const ClientError& failure) {
            if (failure.exit_code() != static_cast<int>(ExitCode::no_permission))
                throw;
            m_no_permission = m_no_permission.empty() ? failure.hint() : m_no_permission;
            written.problem = failure.what();
        }
        problem = written.problem;
    }
    if (!written.damage.empty()) {
        print_message(
            fmt::format("damaged: {}: {}", for_terminal(item.path), for_terminal(written.damage)));
        m_damaged.push_back({item.path, written.damage});
        return;
    }
    if (problem.empty())
        problem = file.commit(&item, false);
    if (!problem.empty()) {
        fail(item, problem);
        return;
    }
    m_bytes += written.bytes;
    m_extracted.push_back(shown(planned.relative));
}

void Extraction::give_folder_metadata_back() {
    std::map<std::string, const ManifestItem*> folders; // by relative name
    for (const ManifestItem& item : m_manifest.items)
        if (item.kind == ItemKind::directory && path_problem(item.path).empty())
            folders.try_emplace(relative_of(item), &item);
    m_created.give_metadata_back([&](const std::string&, const std::string& relative) {
        auto found = folders.find(relative);
        return found == folders.end() ? nullptr : found->second;
    });
}

int Extraction::exit_code() const {
    return static_cast<int>(!m_damaged.empty()         ? ExitCode::damage_found
                            : !m_no_permission.empty() ? ExitCode::no_permission
                            : !m_failed.empty()        ? ExitCode::items_failed
                                                       : ExitCode::complete);
}

int Extraction::report(bool json) const {
    print_warnings(m_created.warnings());
    print_warnings(notes);
    if (!m_no_permission.empty())
        print_message("hint: " + m_no_permission);
    if (json) {
        std::vector<std::string> warnings = m_created.warnings();
        warnings.insert(warnings.end(), notes.begin(), notes.end());
        print_json({{"command", "extract"},
                    {"set", m_manifest.set},
                    {"to", printable_utf8(m_to)},
                    {"extracted", printable_list(m_extracted)},
                    {"failed", failures_json(m_failed)},
                    {"damaged", failures_json(m_damaged)},
                    {"bytes", m_bytes},
                    {"warnings", printable_list(warnings)},
                    {"exit_code", exit_code()}});
        return exit_code();
    }
    std::string text =
        fmt::format("extracted {} items of the set {} to {}, {} written\n", m_extracted.size(),
                    m_manifest.set, for_terminal(m_to), human_bytes(m_bytes));
    if (!m_damaged.empty())
        text += std::to_string(m_damaged.size()) +
                " damaged in the store and not extracted: `qrtln verify` tells more, an older set "
                "may have a\nwhole copy\n";
    if (!m_failed.empty())
        text += std::to_string(m_failed.size()) + " failed, see above\n";
    print_report(text, exit_code());
    return exit_code();
}

// What is written into the store would be taken for a part of it.
void refuse_store(const std::string& to, const std::string& store) {
    std::optional<std::string> real_to = real_path_of_new(to);
    if (real_to && lies_in(*real_to, store))
        throw ClientError(ExitCode::failed,
                          fmt::format("the folder {} is inside the store", for_terminal(to)),
                          "name a folder elsewhere with --to");
}

int run_extract(const ExtractOptions& options) {
    install_interrupt_handlers();
    if (options.paths.empty() && !options.all)
        throw ClientError(ExitCode::usage,
                          "extract needs to know what: name databases, files or folders of the "
                          "set, or say --all",
                          "`qrtln show` lists what a set holds");
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    Manifest manifest = require_set(*store, options.set);
    store->hold_sets({manifest.set});
    std::vector<const ManifestItem*> items;
    bool folders = options.all;
    for (const ManifestItem& item : manifest.items)
        if (options.all && item.status == ItemStatus::left_out)
            print_message("not in the set, which left it out as --exclude said: " +
                          for_terminal(item.path));
        else if (options.all)
            items.push_back(&item);
    for (const std::string& path : options.paths) {
        std::vector<const ManifestItem*> named = items_named(manifest, path, "extract");
        folders = folders || named.size() > 1 || named[0]->kind == ItemKind::directory;
        items.insert(items.end(), named.begin(), named.end());
    }
    std::string to = absolute_path(options.to);
    refuse_store(to, options.store);
    Extraction extraction(*store, manifest, to);
    if (std::string hint = base_hint(manifest, "extract"); folders && !hint.empty())
        extraction.notes.push_back(std::move(hint));
    extraction.run(items);
    return extraction.report(options.json);
}

void add_extract(CLI::App& command, CommandRuns& runs) {
    auto& extract = runs.add(command, run_extract);
    add_store_options(command, extract);
    add_set_argument(command, extract.set);
    CLI::Option* paths = command.add_option(
        "PATH", extract.paths,
        "A database, a file or a folder of the set; relative names are below the data directory "
        "that it recorded");
    command.add_flag("--all", extract.all, "Everything that the set holds")->excludes(paths);
    command
        .add_option("--to", extract.to,
                    "Write below this folder, and never over what is there; what is outside the "
                    "data directory comes with its whole path")
        ->type_name("DIR")
        ->required();
}

} // namespace

const Command extract_command = {"extract", extract_help, add_extract};

} // namespace qrtln
