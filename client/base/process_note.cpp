#include "client/base/process_note.h"

#include "client/base/ownership.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::size_t longest_command = 1000; // bytes, in a note that is read at once

std::string content_of(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string boot_id() {
    return std::string(trimmed(content_of("/proc/sys/kernel/random/boot_id"), "\n"));
}

std::string own_pid_namespace() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/ns/pid", error).string();
}

std::string command_line_of(const std::string& process) {
    std::string text = content_of(process + "/cmdline");
    while (!text.empty() && text.back() == '\0')
        text.pop_back();
    std::replace(text.begin(), text.end(), '\0', ' ');
    if (text.size() > longest_command)
        text = text.substr(0, longest_command) + "…";
    return text;
}

// When a process began, in ticks since the boot (see proc(5)); nothing for one that is not there,
// or has ended and was not waited for.
std::optional<std::uint64_t> start_of(const std::string& process) {
    const std::string text = content_of(process + "/stat");
    const std::size_t name_end = text.rfind(')'); // the name may have any byte
    if (name_end == std::string::npos)
        return std::nullopt;
    std::istringstream words(text.substr(name_end + 1));
    constexpr int words_before = 18; // between the state and the start
    std::string state, passed;
    words >> state;
    for (int i = 0; i < words_before; ++i)
        words >> passed;
    std::uint64_t start = 0;
    if (!(words >> start) || state == "Z" || state == "X")
        return std::nullopt;
    return start;
}

std::int64_t boot_time() {
    std::ifstream file("/proc/stat");
    std::int64_t time = 0;
    for (std::string word; file >> word;)
        if (word == "btime" && file >> time)
            return time;
    return 0;
}

std::optional<ProcessNote> look_at_process(const std::string& name, pid_t process) {
    const std::string folder = "/proc/" + name;
    std::optional<std::uint64_t> start = start_of(folder);
    struct stat status {};
    if (!start || ::stat(folder.c_str(), &status) != 0)
        return std::nullopt;
    const long ticks = ::sysconf(_SC_CLK_TCK);
    const std::int64_t booted = boot_time();
    ProcessNote note;
    note.process = process;
    note.host = host_name();
    note.user = user_text(status.st_uid);
    note.command = command_line_of(folder);
    if (booted != 0 && ticks > 0)
        note.since = booted + static_cast<std::int64_t>(*start / static_cast<std::uint64_t>(ticks));
    note.boot = boot_id();
    note.pid_namespace = own_pid_namespace();
    note.start = *start;
    return note;
}

} // namespace

std::string host_name() {
    std::array<char, 256> host{};
    return ::gethostname(host.data(), host.size() - 1) == 0 ? printable_utf8(host.data()) : "";
}

ProcessNote own_process() {
    ProcessNote note = look_at_process("self", ::getpid()).value_or(ProcessNote{});
    note.process = ::getpid();
    note.host = host_name();
    note.user = user_text(::geteuid());
    note.since = std::time(nullptr);
    return note;
}

std::optional<ProcessNote> running_process(pid_t process) {
    if (process <= 0)
        return std::nullopt;
    return look_at_process(std::to_string(process), process);
}

bool is_of_this_system(const ProcessNote& note) {
    return !note.boot.empty() && note.boot == boot_id();
}

Liveness liveness_of(const ProcessNote& note) {
    if (!is_of_this_system(note)) {
        bool before_the_boot = !note.boot.empty() && !note.host.empty() && note.host == host_name();
        return before_the_boot ? Liveness::ended : Liveness::not_known;
    }
    if (note.pid_namespace != own_pid_namespace())
        return Liveness::not_known;
    std::optional<std::uint64_t> start = start_of("/proc/" + std::to_string(note.process));
    return start && *start == note.start ? Liveness::runs : Liveness::ended;
}

std::string serialize(const ProcessNote& note) {
    nlohmann::json document = {{"host", note.host},
                               {"user", printable_utf8(note.user)},
                               {"command", printable_utf8(note.command)},
                               {"since", note.since},
                               {"boot", note.boot},
                               {"pid_namespace", note.pid_namespace},
                               {"start", note.start}};
    return fmt::format("{}\n{}\n", note.process, document.dump());
}

std::optional<ProcessNote> parse_process_note(std::string_view bytes) {
    ProcessNote note;
    const char* end = bytes.data() + bytes.size();
    auto [behind, error] = std::from_chars(bytes.data(), end, note.process);
    if (error != std::errc() || note.process <= 0)
        return std::nullopt;
    const nlohmann::json document =
        nlohmann::json::parse(behind, end, nullptr, false); // discarded: of an earlier release
    if (!document.is_object())
        return note;
    try {
        document.at("host").get_to(note.host);
        document.at("user").get_to(note.user);
        document.at("command").get_to(note.command);
        document.at("since").get_to(note.since);
        document.at("boot").get_to(note.boot);
        document.at("pid_namespace").get_to(note.pid_namespace);
        document.at("start").get_to(note.start);
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
    return note;
}

std::string describe(const ProcessNote& note, bool with_host) {
    if (note.process == 0)
        return "another process";
    std::string text = fmt::format("process {}", note.process);
    if (!note.host.empty() && (with_host || note.host != host_name()))
        text += " on " + for_terminal(note.host);
    std::string more = for_terminal(note.command);
    auto add = [&more](const std::string& what) { more += (more.empty() ? "" : ", ") + what; };
    if (!note.user.empty())
        add("of " + for_terminal(note.user));
    if (note.since != 0)
        add("since " + utc_time(note.since));
    return more.empty() ? text : fmt::format("{} ({})", text, more);
}

nlohmann::json process_json(const ProcessNote& note) {
    nlohmann::json document = nlohmann::json::object();
    if (note.process != 0)
        document["process"] = note.process;
    for (const auto& [key, value] :
         {std::pair{"host", &note.host}, {"user", &note.user}, {"command_line", &note.command}})
        if (!value->empty())
            document[key] = printable_utf8(*value);
    if (note.since != 0)
        document["since"] = utc_time(note.since);
    return document;
}

} // namespace qrtln
