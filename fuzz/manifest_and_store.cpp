// Manifests and stores. The first byte chooses:
//   'm'  the rest is a manifest, taken as it is and once more in its canonical form with a checksum
//        of its own, so that inputs get past the checksum
//   'n'  the rest is the number of levels of a manifest that is nothing but nested lists
//   's'  the rest describes a store: one file a line, "path=content" (see Assembly)
//   'w'  the same, and the store is written to as well
// What is accepted must say what the bytes say, and write itself as the same bytes from then on. A
// store is listed, read and verified, or opened for writing; nothing outside of it may change.
#include <algorithm>
#include <filesystem>
#include <set>
#include <sys/stat.h>

#include "client/catalogue.h"
#include "client/error.h"
#include "client/owed.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"
#include "client/store/manifest.h"
#include "client/store/store.h"
#include "client/text.h"
#include "fuzz/support/target.h"

namespace {

using fuzz::require;
using nlohmann::json;

constexpr const char* kSet = "20261121T024923Z-full";

// Whether everything that `part` says stands in `whole` too.
bool isContained(const json& part, const json& whole) {
    if (part.is_object() && whole.is_object()) {
        return std::all_of(part.items().begin(), part.items().end(), [&](const auto& field) {
            const auto found = whole.find(field.key());
            return found != whole.end() && isContained(field.value(), *found);
        });
    }
    if (part.is_array() && whole.is_array()) {
        return part.size() == whole.size() &&
               std::equal(part.begin(), part.end(), whole.begin(), isContained);
    }
    return part.dump() == whole.dump(); // numbers that differ may compare equal
}

void checkManifest(const std::string& bytes, const std::string& set) {
    std::string problem;
    const std::optional<qrtln::Manifest> manifest = qrtln::parse_manifest(bytes, set, problem);
    if (!manifest) {
        require(!problem.empty(), "a refusal says why");
        return;
    }
    qrtln::totals(*manifest);
    qrtln::status_text(*manifest);
    const std::string written = qrtln::serialize(*manifest);
    const std::optional<qrtln::Manifest> again = qrtln::parse_manifest(written, set, problem);
    require(again && qrtln::serialize(*again) == written, "what was written reads as itself");
    json before = json::parse(bytes);
    json after = json::parse(written);
    before.erase("checksum");
    after.erase("checksum");
    require(isContained(after, before), "a manifest is understood as it was written");
}

void runManifest(std::string_view bytes) {
    checkManifest(std::string(bytes), kSet);
    if (std::count_if(bytes.begin(), bytes.end(), [](char c) { return c == '[' || c == '{'; }) >
        1000) {
        return; // to write it here would go too deep
    }
    const json document = json::parse(bytes, nullptr, false);
    if (document.is_object()) {
        const auto set = document.find("set");
        checkManifest(qrtln::to_canonical(document),
                      set != document.end() && set->is_string() ? set->get<std::string>() : kSet);
    }
}

void runNested(std::string_view digits) {
    std::size_t levels = 0;
    for (const char digit : digits.substr(0, 6)) {
        levels = levels * 10 + static_cast<std::size_t>(digit - '0') % 10;
    }
    checkManifest("{\"checksum\":\"\",\"x\":" + std::string(levels, '[') +
                      std::string(levels, ']') + "}",
                  kSet);
}

// Writes the files that an input describes below folder()/store. A path is taken below it, its
// parts ".." left out. The content is what follows the "=", expanded; where it begins with a
// letter and ":", that says how it is to be understood:
//   c:  JSON to be put into canonical form     h:  bytes in hexadecimal
//   l:  a symbolic link to these               d:  a folder
class Assembly {
  public:
    explicit Assembly(const std::filesystem::path& root) : m_root(root) {}

    void add(const std::string& line) {
        const std::size_t equals = line.find('=');
        std::filesystem::path path = m_root;
        for (const std::string_view part :
             fuzz::split(std::string_view(line).substr(0, equals), '/')) {
            if (!part.empty() && part != "." && part != ".." && part.size() < 200) {
                path /= part;
            }
        }
        const std::string content = equals == std::string::npos ? "" : line.substr(equals + 1);
        // Never through a link that an earlier line made.
        std::error_code error;
        if (path == m_root || hasLinkAbove(path)) {
            return;
        }
        std::filesystem::create_directories(path.parent_path(), error);
        if (!error && !std::filesystem::is_directory(std::filesystem::symlink_status(path))) {
            std::filesystem::remove(path, error);
            write(path, content);
        }
    }

  private:
    bool hasLinkAbove(std::filesystem::path path) const {
        while ((path = path.parent_path()) != m_root) {
            std::error_code error; // behind a link whatever it leads to; the link itself has none
            const auto status = std::filesystem::symlink_status(path, error);
            if (std::filesystem::exists(status) && !std::filesystem::is_directory(status)) {
                return true;
            }
        }
        return false;
    }

    static void write(const std::filesystem::path& path, const std::string& content) {
        std::error_code error;
        if (content.starts_with("l:")) {
            std::filesystem::create_symlink(content.substr(2), path, error);
        } else if (content.starts_with("d:")) {
            std::filesystem::create_directory(path, error);
        } else if (content.starts_with("h:")) {
            fuzz::writeFile(path, qrtln::from_hex(content.substr(2)).value_or(content));
        } else if (content.starts_with("c:")) {
            const json document = json::parse(content.substr(2), nullptr, false);
            fuzz::writeFile(path, document.is_object() ? qrtln::to_canonical(document) : content);
        } else {
            fuzz::writeFile(path, content);
        }
    }

    std::filesystem::path m_root;
};

// All that `qrtln list`, `show` and `verify` read.
void readStore(qrtln::Store& store) {
    std::vector<std::string> foreign;
    const std::vector<std::string> objects = store.objects(&foreign);
    std::set<std::string> referenced(objects.begin(), objects.end());
    for (const std::string& set : store.set_names()) {
        const qrtln::CatalogueEntry entry = qrtln::load_set(store, set);
        require(entry.manifest.has_value() != !entry.problem.empty(), "whole, or a problem");
        if (entry.manifest) {
            for (const qrtln::ManifestItem& item : entry.manifest->items) {
                if (!item.object.empty()) {
                    referenced.insert(item.object);
                }
            }
        }
    }
    for (const std::string& hash : referenced) {
        std::string content;
        const qrtln::ObjectCheck check = store.read_object(hash, [&](qrtln::Bytes bytes) {
            content.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        });
        require(!check.problem.empty() ||
                    (qrtln::sha256_hex(content) == hash && check.size == content.size()),
                "an object without a problem is its bytes");
    }
    for (const char* given : {"latest", "2026", ""}) {
        try {
            qrtln::resolve_set(store, given);
        } catch (const qrtln::ClientError&) {
        }
    }
    qrtln::find_base(store, {"", "", "/local/notesdata", "/local/notesdata"});
}

// As a backup does, up to a database that is owed and a set of one object.
void writeStore(qrtln::Store& store) {
    qrtln::OwedDatabases owed(store.runtime_directory() + "/owed.jsonl");
    owed.add("/local/notesdata", "/local/notesdata/a.nsf");
    std::unique_ptr<qrtln::ObjectWriter> writer = store.create_object();
    writer->write(qrtln::as_bytes("content of an item"));
    const qrtln::StoredObject object = writer->finish();
    store.flush();
    const std::string set = qrtln::new_set_name(store, 1795229363, "full");
    qrtln::Manifest manifest;
    manifest.set = set;
    manifest.level = "full";
    store.write_manifest(set, qrtln::serialize(manifest));
    require(qrtln::load_set(store, set).manifest.has_value(), "a set that was written is there");
    require(store.read_object(object.hash, [](qrtln::Bytes) {}).problem.empty(),
            "an object that was written is there");
    require(owed.strike("/local/notesdata", {"/local/notesdata/a.nsf"}) == 0 ||
                !owed.of("/local/notesdata").empty(),
            "an owed database is struck out, or stays");
}

void use(const std::string& directory, qrtln::StoreAccess access) {
    try {
        std::string damage;
        const std::unique_ptr<qrtln::Store> store =
            qrtln::open_directory_store(directory, access, &damage);
        readStore(*store);
        if (access == qrtln::StoreAccess::write) {
            try {
                writeStore(*store);
            } catch (const qrtln::ClientError&) {
                store->discard_added();
            }
        }
    } catch (const qrtln::ClientError& error) {
        require(*error.what() != '\0', "a refusal says why");
    }
}

// What lies beside the store, for links to lead to: a file, and a folder of one file.
class Surroundings {
  public:
    explicit Surroundings(const std::filesystem::path& root) : m_root(root) { create(); }

    void check() const {
        require(fuzz::readFile(m_root / "file") == kContent &&
                    fuzz::readFile(m_root / "folder/file") == kContent &&
                    entries(m_root / "folder") == 1 && entries(m_root) <= 3,
                "nothing outside the store changes");
        struct stat status {};
        require(stat((m_root / "file").c_str(), &status) == 0 && (status.st_mode & 07777) == 0644,
                "no mode outside the store changes");
    }

  private:
    static constexpr const char* kContent = "not of the store";

    void create() const {
        std::filesystem::create_directories(m_root / "folder");
        fuzz::writeFile(m_root / "file", kContent);
        fuzz::writeFile(m_root / "folder/file", kContent);
        std::filesystem::permissions(m_root / "file", std::filesystem::perms(0644));
    }
    static long entries(const std::filesystem::path& folder) {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    }
    std::filesystem::path m_root;
};

void runStore(std::string_view description, qrtln::StoreAccess access) {
    static const Surroundings surroundings(fuzz::folder());
    const std::filesystem::path root = fuzz::folder() + "/store";
    std::filesystem::remove_all(root);
    std::filesystem::create_directory(root);
    Assembly assembly(root);
    for (const char* folder : {"objects=d:", "sets=d:", "runtime=d:"}) {
        assembly.add(folder);
    }
    assembly.add(R"(store.json=c:{"format":1,"type":"qrtln store"})");
    const std::vector<std::string_view> lines = fuzz::split(description, '\n');
    for (std::size_t i = 0; i < lines.size() && i < 32; ++i) {
        assembly.add(fuzz::expanded(lines[i]));
    }
    use(root, access);
    surroundings.check();
}

} // namespace

void fuzz::runInput(std::string_view input) {
    if (input.empty()) {
        return;
    }
    switch (input[0]) {
    case 'm':
        runManifest(input.substr(1));
        break;
    case 'n':
        runNested(input.substr(1));
        break;
    case 's':
        runStore(input.substr(1), qrtln::StoreAccess::read_damaged);
        break;
    case 'w':
        runStore(input.substr(1), qrtln::StoreAccess::write);
        break;
    default:
        break;
    }
}
