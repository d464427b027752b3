// Manifests and stores. The first byte chooses:
//   'm'  the rest is a manifest, taken as it is and once more in its canonical form with a checksum
//        of its own, so that inputs get past the checksum
//   'n'  the rest is the number of levels of a manifest that is nothing but nested lists
//   's'  the rest describes a store: one file a line, "path=content" (see Assembly)
//   'w'  the same, and the store is written to as well
// What is accepted must say what the bytes say, and write itself as the same bytes from then on. A
// store is listed, read and verified, or opened for writing; nothing outside of it may change.
#include <algorithm>
#include <charconv>
#include <filesystem>
#include <set>

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"
#include "client/sets/owed.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"
#include "client/store/store.h"
#include "fuzz/support.h"

namespace {

using fuzz::require;
using nlohmann::json;

constexpr char kStore[] = "store";
constexpr char kBeside[] = "not of the store";
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
    std::size_t levels = 0; // no digits: none
    std::from_chars(digits.data(), digits.data() + std::min<std::size_t>(digits.size(), 6), levels);
    checkManifest("{\"checksum\":\"\",\"x\":" + std::string(levels, '[') +
                      std::string(levels, ']') + "}",
                  kSet);
}

// Writes a file that an input describes below folder()/store. Its path is taken below it, the parts
// ".." left out. The content is what follows the "=", expanded; where it begins with a letter and
// ":", that says how it is to be understood:
//   c:  JSON to be put into canonical form     h:  bytes in hexadecimal
//   l:  a symbolic link to these               d:  a folder
void assemble(const std::string& line) {
    const std::size_t equals = line.find('=');
    std::filesystem::path path = kStore;
    std::error_code error;
    for (const std::string_view part : fuzz::split(std::string_view(line).substr(0, equals), '/')) {
        if (std::filesystem::is_symlink(path, error)) {
            return; // never through a link that an earlier line made
        }
        if (!part.empty() && part != "." && part != ".." && part.size() < 200) {
            path /= part;
        }
    }
    std::filesystem::create_directories(path.parent_path(), error);
    if (path == kStore || error ||
        (std::filesystem::is_directory(path, error) && !std::filesystem::is_symlink(path, error))) {
        return;
    }
    std::filesystem::remove(path, error);
    std::string content = equals == std::string::npos ? "" : line.substr(equals + 1);
    const std::string rest = content.substr(std::min<std::size_t>(2, content.size()));
    if (content.starts_with("l:")) {
        std::filesystem::create_symlink(rest, path, error);
        return;
    }
    if (content.starts_with("d:")) {
        std::filesystem::create_directory(path, error);
        return;
    }
    if (content.starts_with("h:")) {
        content = qrtln::from_hex(rest).value_or(content);
    } else if (content.starts_with("c:")) {
        const json document = json::parse(rest, nullptr, false);
        content = document.is_object() ? qrtln::to_canonical(document) : content;
    }
    std::ofstream(path, std::ios::binary) << content;
}

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

void runStore(std::string_view description, qrtln::StoreAccess access) {
    // What lies beside the store, for links to lead to.
    for (const char* file : {"file", "folder/file"}) {
        fuzz::files().write(file, kBeside);
        std::filesystem::permissions(file, std::filesystem::perms(0644));
    }
    std::filesystem::remove_all(kStore);
    for (const char* line : {"objects=d:", "sets=d:", "runtime=d:",
                             R"(store.json=c:{"format":1,"type":"qrtln store"})"}) {
        assemble(line);
    }
    const std::vector<std::string_view> lines = fuzz::split(description, '\n');
    for (std::size_t i = 0; i < lines.size() && i < 32; ++i) {
        assemble(fuzz::expanded(lines[i]));
    }
    use(fuzz::files().file(kStore), access);
    const auto entries = [](const std::string& path) {
        return std::distance(std::filesystem::directory_iterator(path), {});
    };
    require(fuzz::files().read("file") == kBeside && fuzz::files().read("folder/file") == kBeside &&
                entries("folder") == 1 && entries(".") == 3,
            "nothing outside the store changes");
    require(std::filesystem::status("file").permissions() == std::filesystem::perms(0644),
            "no mode outside the store changes");
}

} // namespace

void fuzz::runInput(std::string_view input) {
    if (input.empty()) {
        return;
    }
    const std::string_view rest = input.substr(1);
    switch (input[0]) {
    case 'm':
        return runManifest(rest);
    case 'n':
        return runNested(rest);
    case 's':
        return runStore(rest, qrtln::StoreAccess::read_damaged);
    case 'w':
        return runStore(rest, qrtln::StoreAccess::write);
    default:
        break;
    }
}
