#include "client/sets/manifest.h"

#include "client/base/text.h"
#include "client/store/block_hash.h"
#include "client/store/canonical_json.h"
#include "client/store/digest.h"

#include <array>
#include <stdexcept>
#include <string_view>
#include <strings.h>
#include <utility>

namespace qrtln {

namespace {

using nlohmann::json;

constexpr std::array kind_names = {"directory", "database", "log", "log_control",
                                   "file",      "other",    "link"};

ItemKind kind_of(const std::string& name) {
    for (std::size_t i = 0; i < kind_names.size(); ++i)
        if (name == kind_names[i])
            return static_cast<ItemKind>(i);
    throw std::runtime_error("an unknown kind of item");
}

// The number of a field. get() would cut a fraction off, and wrap what is too large for its type.
template <typename Number>
Number number_of(const json& object, const char* name) {
    const json& field = object.at(name);
    bool fits = field.is_number_unsigned()
                    ? std::in_range<Number>(field.get<std::uint64_t>())
                    : field.is_number_integer() && std::in_range<Number>(field.get<std::int64_t>());
    if (!fits)
        throw std::runtime_error("the field " + std::string(name) + " is no number of its range");
    return field.get<Number>();
}

// A list of a field: going over an object would take its values for one.
const json& list_of(const json& object, const char* name) {
    const json& field = object.at(name);
    if (!field.is_array())
        throw std::runtime_error("the field " + std::string(name) + " is no list");
    return field;
}

json item_to_json(const ManifestItem& item) {
    json out;
    put_bytes(out, "path", item.path);
    out["kind"] = item_kind_name(item.kind);
    out["status"] = item.status == ItemStatus::stored ? "stored" : "failed";
    if (item.status == ItemStatus::left_out) // failed, for a release that does not know it
        out["left_out"] = true;
    if (!item.reason.empty())
        out["reason"] = printable_utf8(item.reason);
    if (item.has_metadata) {
        out["mode"] = item.mode;
        out["uid"] = item.uid;
        out["gid"] = item.gid;
        out["owner"] = printable_utf8(item.owner);
        out["group"] = printable_utf8(item.group);
        out["mtime_ns"] = item.mtime_ns;
    }
    if (!item.object.empty()) {
        out["object"] = item.object;
        out["size"] = item.size;
        out["stored_size"] = item.stored_size;
        if (item.changed_size)
            out["changed_size"] = *item.changed_size;
        if (item.inode != 0) {
            out["ctime_ns"] = item.ctime_ns;
            out["inode"] = item.inode;
        }
        if (is_in_blocks(item))
            out["map"] = {
                {"file", item.map.file}, {"offset", item.map.offset}, {"size", item.map.size}};
    }
    if (!item.target.empty())
        put_bytes(out, "target", item.target);
    if (item.prepare_status != 0)
        out["prepare_status"] = item.prepare_status;
    if (!item.dbiid.empty())
        out["dbiid"] = item.dbiid;
    if (item.restored)
        out["restored"] = true;
    if (item.copied != 0)
        out["copied"] = item.copied;
    if (item.log) {
        out["log"] = {{"number", item.log->number},
                      {"archive_id", item.log->archive_id},
                      {"active", item.log->active}};
        if (!item.log->whole_id.empty())
            out["log"]["whole_id"] = item.log->whole_id;
    }
    if (!item.warnings.empty())
        out["warnings"] = printable_list(item.warnings);
    return out;
}

LogGap gap_from_json(const json& in) {
    LogGap gap{in.at("after").get<std::string>(), in.at("before").get<std::string>(), 0, 0,
               in.value("reason", "")};
    if (gap.reason.empty()) {
        gap.first = number_of<std::uint32_t>(in, "first");
        gap.last = number_of<std::uint32_t>(in, "last");
    }
    return gap;
}

MapPlace map_place(const json& in) {
    MapPlace place{in.at("file").get<std::string>(), number_of<std::uint64_t>(in, "offset"),
                   number_of<std::uint64_t>(in, "size")};
    if (!is_sha256_hex(place.file))
        throw std::runtime_error("a file of maps whose name is no digest");
    return place;
}

ManifestItem item_from_json(const json& in) {
    ManifestItem item;
    item.path = get_bytes(in, "path");
    item.kind = kind_of(in.at("kind").get<std::string>());
    std::string status = in.at("status").get<std::string>();
    if (status != "stored" && status != "failed")
        throw std::runtime_error("an unknown status of an item");
    item.status = status == "stored"            ? ItemStatus::stored
                  : in.value("left_out", false) ? ItemStatus::left_out
                                                : ItemStatus::failed;
    item.reason = in.value("reason", "");
    if (in.contains("mode")) {
        item.has_metadata = true;
        item.mode = number_of<std::uint32_t>(in, "mode");
        item.uid = number_of<std::uint32_t>(in, "uid");
        item.gid = number_of<std::uint32_t>(in, "gid");
        item.owner = in.at("owner").get<std::string>();
        item.group = in.at("group").get<std::string>();
        item.mtime_ns = number_of<std::int64_t>(in, "mtime_ns");
    }
    if (in.contains("object")) {
        item.object = in.at("object").get<std::string>();
        if (in.contains("map"))
            item.map = map_place(in.at("map"));
        if (is_in_blocks(item) ? block_size_of(item.object) == 0 : !is_sha256_hex(item.object))
            throw std::runtime_error("an object name that is no digest");
        item.size = number_of<std::uint64_t>(in, "size");
        item.stored_size = number_of<std::uint64_t>(in, "stored_size");
        if (in.contains("changed_size"))
            item.changed_size = number_of<std::uint64_t>(in, "changed_size");
        if (in.contains("inode")) {
            item.ctime_ns = number_of<std::int64_t>(in, "ctime_ns");
            item.inode = number_of<std::uint64_t>(in, "inode");
        }
    }
    if (in.contains("target"))
        item.target = get_bytes(in, "target");
    bool link = item.kind == ItemKind::link;
    if (item.status == ItemStatus::stored && item.kind != ItemKind::directory &&
        (link ? item.target.empty() : item.object.empty()))
        throw std::runtime_error("a stored item without content");
    if (in.contains("prepare_status"))
        item.prepare_status = number_of<int>(in, "prepare_status");
    item.dbiid = in.value("dbiid", "");
    item.restored = in.value("restored", false);
    if (in.contains("copied"))
        item.copied = number_of<std::int64_t>(in, "copied");
    if (in.contains("log")) {
        const json& log = in.at("log");
        item.log = LogIdentity{number_of<std::uint32_t>(log, "number"),
                               log.at("archive_id").get<std::string>(),
                               log.at("active").get<bool>(), log.value("whole_id", "")};
    }
    if (in.contains("warnings"))
        item.warnings = in.at("warnings").get<std::vector<std::string>>();
    return item;
}

} // namespace

const char* item_kind_name(ItemKind kind) {
    return kind_names[static_cast<std::size_t>(kind)];
}

bool is_attachment_object(const std::string& path) {
    constexpr std::string_view ending = ".nlo";
    return path.size() > ending.size() &&
           ::strcasecmp(path.c_str() + path.size() - ending.size(), ending.data()) == 0;
}

bool same_archive(const LogIdentity& one, const LogIdentity& other) {
    return one.whole_id.empty() || other.whole_id.empty() ? one.archive_id == other.archive_id
                                                          : one.whole_id == other.whole_id;
}

// A full of the whole server is more than one of some databases.
std::string level_text(const Manifest& manifest) {
    if (!manifest.reason.empty())
        return fmt::format("{} ({})", manifest.level, manifest.reason);
    return manifest.whole_system ? manifest.level : manifest.level + " (named)";
}

std::string status_text(const Manifest& manifest) {
    std::string text = manifest.complete ? "complete" : "incomplete";
    if (!manifest.close_error.empty())
        text += ", close failed";
    if (!manifest.log_gaps.empty())
        text += ", logs missing";
    return text;
}

ManifestTotals totals(const Manifest& manifest) {
    ManifestTotals sum;
    for (const ManifestItem& item : manifest.items) {
        sum.warnings += item.warnings.size();
        if (item.status == ItemStatus::failed) {
            ++sum.failed_items;
        } else if (item.status == ItemStatus::left_out) {
            ++sum.left_out_databases;
        } else if (item.kind != ItemKind::directory) {
            ++sum.stored_items;
            sum.bytes += item.size;
            if (!item.object.empty() && !item.changed_size)
                sum.changed_bytes.reset();
            else if (sum.changed_bytes)
                *sum.changed_bytes += item.changed_size.value_or(0);
            sum.databases += item.kind == ItemKind::database ? 1 : 0;
            bool object = is_attachment_object(item.path);
            bool other = item.kind == ItemKind::other || item.kind == ItemKind::link;
            sum.attachment_objects += object ? 1 : 0;
            sum.other_files += other && !object ? 1 : 0;
        }
    }
    return sum;
}

std::string left_out_text(const LeftOutFiles& left_out) {
    std::string text;
    for (const auto& [count, what] :
         {std::pair{left_out.made_anew, "that the server makes anew (full-text indexes, locks, "
                                        "temporary files)"},
          std::pair{left_out.excluded, "by --exclude"},
          std::pair{left_out.special, "that are sockets, FIFOs or devices"}})
        if (count > 0)
            text += (text.empty() ? "left out: " : ", ") + std::to_string(count) + " " + what;
    return text;
}

std::string left_out_databases_text(const Manifest& manifest) {
    std::size_t count = 0;
    std::string lines;
    for (const ManifestItem& item : manifest.items)
        if (item.status == ItemStatus::left_out) {
            ++count;
            lines += "    " + for_terminal(item.path) + ": " + for_terminal(item.reason) + "\n";
        }
    if (count == 0)
        return {};
    return "  " + std::to_string(count) +
           (count == 1 ? " database that could not be saved was left out as --exclude says:\n"
                       : " databases that could not be saved were left out as --exclude says:\n") +
           lines;
}

json left_out_json(const LeftOutFiles& left_out) {
    return {{"made_anew", left_out.made_anew},
            {"excluded", left_out.excluded},
            {"special", left_out.special}};
}

std::string serialize(const Manifest& manifest) {
    json out;
    out["format"] = manifest_format;
    out["set"] = manifest.set;
    out["level"] = manifest.level;
    out["started"] = manifest.started;
    out["ended"] = manifest.ended;
    out["status"] = manifest.complete ? "complete" : "incomplete";
    if (!manifest.close_error.empty())
        out["close_error"] = printable_utf8(manifest.close_error);
    for (const auto& [name, value] :
         {std::pair{"reason", &manifest.reason}, std::pair{"base", &manifest.base},
          std::pair{"previous", &manifest.previous},
          std::pair{"predecessor", &manifest.predecessor}})
        if (!value->empty())
            out[name] = *value;
    for (const LogGap& gap : manifest.log_gaps) {
        json entry = {{"after", gap.after}, {"before", gap.before}};
        if (gap.reason.empty())
            entry.update({{"first", gap.first}, {"last", gap.last}});
        else
            entry["reason"] = printable_utf8(gap.reason);
        out["log_gaps"].push_back(std::move(entry));
    }
    out["selection"]["whole_system"] = manifest.whole_system;
    if (manifest.other_files)
        out["selection"]["other_files"] = true;
    if (const LeftOutFiles& left_out = manifest.left_out; left_out.any())
        out["left_out"] = left_out_json(left_out);
    json& arguments = out["selection"]["databases"] = json::array();
    for (const std::string& argument : manifest.arguments) {
        json entry;
        put_bytes(entry, "path", argument);
        arguments.push_back(entry);
    }
    json& server = out["server"];
    server["host"] = printable_utf8(manifest.host);
    if (manifest.names_server)
        server["name"] = manifest.server_name;
    if (!manifest.own_name.empty())
        put_bytes(server, "own_name", manifest.own_name);
    if (!manifest.id_file.empty())
        put_bytes(server, "id_file", manifest.id_file);
    put_bytes(server, "notes_ini", manifest.notes_ini);
    put_bytes(server, "data_directory", manifest.data_directory);
    out["client_version"] = manifest.client_version;
    json& module = out["module"];
    put_bytes(module, "file", manifest.module_file);
    module["client"] = printable_utf8(manifest.module_client);
    module["version"] = printable_utf8(manifest.module_version);
    module["release"] = printable_utf8(manifest.module_release);
    out["new_bytes"] = manifest.new_bytes;
    json& items = out["items"] = json::array();
    for (const ManifestItem& item : manifest.items)
        items.push_back(item_to_json(item));
    return to_canonical(std::move(out));
}

std::optional<Manifest> parse_manifest(const std::string& bytes, const std::string& set,
                                       std::string& problem) {
    std::optional<json> in = from_canonical(bytes, problem);
    if (!in)
        return std::nullopt;
    try {
        if (int format = number_of<int>(*in, "format"); format != manifest_format) {
            problem = "has the format " + std::to_string(format) +
                      ", which this version of qrtln "
                      "does not know";
            return std::nullopt;
        }
        Manifest manifest;
        manifest.set = in->at("set").get<std::string>();
        if (manifest.set != set) {
            problem = "is the manifest of the set " + manifest.set;
            return std::nullopt;
        }
        manifest.level = in->at("level").get<std::string>();
        manifest.started = number_of<std::int64_t>(*in, "started");
        manifest.ended = number_of<std::int64_t>(*in, "ended");
        std::string status = in->at("status").get<std::string>();
        if (status != "complete" && status != "incomplete")
            throw std::runtime_error("an unknown status of the set");
        manifest.complete = status == "complete";
        manifest.close_error = in->value("close_error", "");
        manifest.reason = in->value("reason", "");
        manifest.base = in->value("base", "");
        manifest.previous = in->value("previous", "");
        manifest.predecessor = in->value("predecessor", "");
        if (in->contains("log_gaps"))
            for (const json& gap : list_of(*in, "log_gaps"))
                manifest.log_gaps.push_back(gap_from_json(gap));
        const json& selection = in->at("selection");
        manifest.whole_system = selection.at("whole_system").get<bool>();
        manifest.other_files = selection.value("other_files", false);
        if (in->contains("left_out")) {
            const json& left_out = in->at("left_out");
            manifest.left_out = {number_of<std::uint64_t>(left_out, "made_anew"),
                                 number_of<std::uint64_t>(left_out, "excluded"),
                                 number_of<std::uint64_t>(left_out, "special")};
        }
        for (const json& argument : list_of(selection, "databases"))
            manifest.arguments.push_back(get_bytes(argument, "path"));
        const json& server = in->at("server");
        manifest.host = server.at("host").get<std::string>();
        manifest.names_server = server.contains("name");
        manifest.server_name = server.value("name", manifest.host);
        if (server.contains("own_name"))
            manifest.own_name = get_bytes(server, "own_name");
        if (server.contains("id_file"))
            manifest.id_file = get_bytes(server, "id_file");
        manifest.notes_ini = get_bytes(server, "notes_ini");
        manifest.data_directory = get_bytes(server, "data_directory");
        manifest.client_version = in->at("client_version").get<std::string>();
        const json& module = in->at("module");
        manifest.module_file = get_bytes(module, "file");
        manifest.module_client = module.at("client").get<std::string>();
        manifest.module_version = module.at("version").get<std::string>();
        manifest.module_release = module.at("release").get<std::string>();
        manifest.new_bytes = number_of<std::uint64_t>(*in, "new_bytes");
        for (const json& item : list_of(*in, "items"))
            manifest.items.push_back(item_from_json(item));
        return manifest;
    } catch (const std::exception& failure) {
        problem = std::string("is not in the form of a manifest: ") + failure.what();
        return std::nullopt;
    }
}

} // namespace qrtln
