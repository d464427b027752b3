#include "client/remote/remote_files.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <future>
#include <memory>
#include <openssl/evp.h>
#include <set>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace qrtln {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t most_work = 8; // of files of some ten MiB; rclone cuts large ones itself
constexpr std::chrono::seconds longest_pause{30};
constexpr int not_found = 404;

// How rclone's backends say that it is not for this user: no patience mends that.
constexpr std::array refusals = {
    "AccessDenied",           "Access Denied",        "Authorization Failed",  "Unauthorized",
    "403 Forbidden",          "InvalidAccessKeyId",   "SignatureDoesNotMatch", "permission denied",
    "unable to authenticate", "ssh: handshake failed"};
// Nor these: they are mistakes.
constexpr std::array mistakes = {"didn't find section in config file", "didn't find backend called",
                                 "failed to make hash: "};

template <std::size_t count>
bool has_one_of(const std::string& text, const std::array<const char*, count>& parts) {
    return std::any_of(parts.begin(), parts.end(),
                       [&](const char* part) { return text.find(part) != std::string::npos; });
}

bool is_missing(const RcloneFailure& failure) {
    return failure.status == not_found;
}

std::chrono::seconds pause_after(std::chrono::seconds before) {
    return std::min(std::max<std::chrono::seconds>(before * 2, 1s), longest_pause);
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string last_part_of(const std::string& path) {
    return path.substr(path.rfind('/') + 1); // npos + 1 is the beginning
}

RemoteFile remote_file(const nlohmann::json& entry) {
    RemoteFile file;
    file.name = entry.value("Path", "");
    file.size = static_cast<std::uint64_t>(std::max<std::int64_t>(entry.value("Size", 0LL), 0));
    if (entry.contains("Hashes") && entry["Hashes"].is_object())
        for (const auto& [kind, hash] : entry["Hashes"].items())
            if (hash.is_string() && !hash.get_ref<const std::string&>().empty())
                file.hashes[kind] = hash.get<std::string>();
    return file;
}

nlohmann::json listing(RemoteFiles::Hashes hashes) {
    return {{"showHash", hashes == RemoteFiles::Hashes::told},
            {"hashTypes", {"md5"}},
            {"noModTime", true},
            {"noMimeType", true},
            {"filesOnly", true},
            {"recurse", true}};
}

nlohmann::json copying(const std::string& local, const std::string& place,
                       const std::string& name) {
    const std::string folder = folder_of(local);
    return {{"srcFs", folder.empty() ? "/" : folder},
            {"srcRemote", last_part_of(local)},
            {"dstFs", place},
            {"dstRemote", name},
            {"_config", {{"IgnoreTimes", true}}}};
}

bool is_gone(const std::string& problem) {
    return problem.find("object not found") != std::string::npos ||
           problem.find("directory not found") != std::string::npos;
}

void wait(std::chrono::seconds pause) {
    for (const Clock::time_point until = Clock::now() + pause; Clock::now() < until;) {
        throw_if_interrupted();
        std::this_thread::sleep_for(looks_again);
    }
}

// Hexadecimal: places tell it of what they have. Not against forgery: other names are.
std::string md5_of(const FileDescriptor& file, const std::string& path) {
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(::EVP_MD_CTX_new(),
                                                                     ::EVP_MD_CTX_free);
    std::vector<std::byte> buffer(read_size);
    bool good = context && ::EVP_DigestInit_ex(context.get(), ::EVP_md5(), nullptr) == 1;
    while (good) {
        const ssize_t got = read_up_to(file.get(), buffer);
        good = got >= 0 &&
               ::EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(got)) == 1;
        if (got <= 0)
            break;
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    if (!good || ::EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1)
        throw ClientError(ExitCode::failed, "cannot read " + for_terminal(path));
    return to_hex({reinterpret_cast<const char*>(digest.data()), length});
}

// Beside who asks where the file is large; it may have another name then, or none.
std::shared_future<std::string> begin_md5(std::shared_ptr<FileDescriptor> file, std::uint64_t size,
                                          const std::string& path) {
    constexpr std::uint64_t is_large = std::uint64_t{1} << 20;
    const auto work = [file = std::move(file), path] { return md5_of(*file, path); };
    const InterruptsBlocked blocked; // they are the other threads' concern
    try {
        if (size >= is_large)
            return std::async(std::launch::async, work).share();
    } catch (const std::system_error&) { // there is no thread to be had
    }
    std::promise<std::string> done;
    done.set_value(work());
    return done.get_future().share();
}

} // namespace

RemoteFiles::RemoteFiles(RemoteOptions options)
    : m_options(std::move(options)), m_process({.bandwidth = m_options.bandwidth}),
      m_calls(m_process.url(), m_process.secret(), m_options.longest_outage) {}

// It kept silent for all of the patience; who asks it once more would wait as long again.
void RemoteFiles::end_where_silent(const RcloneFailure& failure) {
    if (failure.status != RcloneFailure::no_answer)
        return;
    const std::lock_guard lock(m_telling);
    m_process.kill();
    throw ClientError(
        ExitCode::remote_failed,
        fmt::format("cannot use {}: {}", for_terminal(m_options.place), failure.what()),
        fmt::format("`rclone lsd {}` tells whether it can be reached; "
                    "--remote-patience is for how long an answer is waited for",
                    for_terminal(m_options.place)));
}

void RemoteFiles::give_up(const std::string& doing, const std::string& text) {
    m_process.require_running();
    const std::string what =
        fmt::format("cannot {} {}: {}", doing, for_terminal(m_options.place), for_terminal(text));
    if (has_one_of(text, refusals))
        throw ClientError(ExitCode::no_permission, what,
                          "see who rclone takes you for: `rclone config`, RCLONE_CONFIG");
    throw ClientError(ExitCode::remote_failed, what,
                      fmt::format("`rclone lsd {}` tells whether it can be reached",
                                  for_terminal(m_options.place)));
}

void RemoteFiles::note_failure(const std::string& doing, const std::string& text,
                               Clock::time_point first, std::chrono::seconds pause) {
    m_process.require_running();
    const bool is_final = has_one_of(text, refusals) || has_one_of(text, mistakes);
    if (is_final || Clock::now() + pause - first > m_options.longest_outage)
        give_up(doing, text);
    const std::lock_guard lock(m_telling); // a content is read on several threads
    print_message(fmt::format("warning: cannot {} {}: {}: trying again in {} s", doing,
                              for_terminal(m_options.place), for_terminal(text), pause.count()));
}

template <typename Call>
auto RemoteFiles::insist(const std::string& doing, Call call) {
    const Clock::time_point first = Clock::now();
    std::chrono::seconds pause{0};
    for (;;) {
        try {
            return call();
        } catch (const RcloneFailure& failure) {
            if (is_missing(failure))
                throw;
            end_where_silent(failure);
            pause = pause_after(pause);
            note_failure(doing, failure.what(), first, pause);
        }
        wait(pause);
    }
}

std::vector<RemoteFile> RemoteFiles::list(const std::string& folder, Hashes hashes) {
    std::vector<RemoteFile> files;
    try {
        const nlohmann::json answer = insist("list", [&] {
            return m_calls.call(
                "operations/list",
                {{"fs", m_options.place}, {"remote", folder}, {"opt", listing(hashes)}});
        });
        for (const nlohmann::json& entry : answer.value("list", nlohmann::json::array()))
            files.push_back(remote_file(entry));
    } catch (const RcloneFailure&) { // there is no such folder
    }
    std::sort(files.begin(), files.end(),
              [](const auto& one, const auto& other) { return one.name < other.name; });
    return files;
}

std::optional<RemoteFile> RemoteFiles::look_at(const std::string& name, Hashes hashes) {
    try {
        const nlohmann::json answer = insist("look at a file of", [&] {
            return m_calls.call(
                "operations/stat",
                {{"fs", m_options.place}, {"remote", name}, {"opt", listing(hashes)}});
        });
        if (answer.contains("item") && answer["item"].is_object())
            return remote_file(answer["item"]);
    } catch (const RcloneFailure&) {
    }
    return std::nullopt;
}

bool RemoteFiles::read(const std::string& name, std::uint64_t offset, std::span<std::byte> buffer) {
    try {
        return insist("read a file of", [&] {
                   return m_calls.read(m_options.place, name, offset, buffer);
               }) == buffer.size();
    } catch (const RcloneFailure&) {
        return false;
    }
}

std::optional<std::string> RemoteFiles::read_small(const std::string& name, std::size_t limit) {
    const std::optional<RemoteFile> file = look_at(name);
    if (!file || file->size > limit)
        return std::nullopt;
    std::string bytes(file->size, '\0');
    if (!read(name, 0, std::as_writable_bytes(std::span(bytes))))
        return std::nullopt;
    return bytes;
}

void RemoteFiles::put(const std::string& local, const std::string& name,
                      std::function<void()> done) {
    auto file = std::make_shared<FileDescriptor>(::open(local.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!*file || ::fstat(file->get(), &status) != 0)
        throw ClientError(ExitCode::failed, fmt::format("cannot read {}: {}", for_terminal(local),
                                                        system_error_text(errno)));
    const auto size = static_cast<std::uint64_t>(status.st_size);
    auto md5 = begin_md5(std::move(file), size, local);
    std::erase_if(m_expected, [&](const Expected& expected) { return expected.name == name; });
    m_expected.push_back({name, size, std::move(md5)});
    begin({.doing = "put a file to",
           .method = "operations/copyfile",
           .arguments = copying(local, m_options.place, name),
           .name = name,
           .done = std::move(done)});
}

void RemoteFiles::put_small(const std::string& bytes, const std::string& name) {
    std::error_code none;
    std::string local = (std::filesystem::temp_directory_path(none) / "qrtln-XXXXXX").string();
    FileDescriptor file(::mkostemp(local.data(), O_CLOEXEC));
    int error = file ? write_all(file.get(), as_bytes(bytes)) : errno;
    if (error == 0)
        error = file.close_checked();
    if (error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot make the temporary file {}: {}", for_terminal(local),
                                      system_error_text(error)));
    const std::unique_ptr<const std::string, void (*)(const std::string*)> removed(
        &local, [](const std::string* path) { ::unlink(path->c_str()); });
    try {
        insist("put a file to", [&] {
            return m_calls.call("operations/copyfile", copying(local, m_options.place, name));
        });
    } catch (const RcloneFailure& failure) { // there is no such container, or bucket
        give_up("put a file to", failure.what());
    }
}

void RemoteFiles::remove(const std::string& name) {
    std::erase_if(m_expected, [&](const Expected& expected) { return expected.name == name; });
    begin({.doing = "remove a file of",
           .method = "operations/deletefile",
           .arguments = {{"fs", m_options.place}, {"remote", name}},
           .name = name,
           .done = {}});
}

void RemoteFiles::take_back(const std::string& name) {
    std::erase_if(m_expected, [&](const Expected& expected) { return expected.name == name; });
    bool is_stopped = false;
    try {
        for (Work& work : m_work)
            if (work.name == name && work.runs) {
                m_calls.call("job/stop", {{"jobid", work.job}});
                while (!m_calls.look_at(work.job).ended)
                    std::this_thread::sleep_for(looks_again);
            }
        m_work.remove_if([&](const Work& work) { return work.name == name; });
        is_stopped = true;
        m_calls.call("operations/deletefile", {{"fs", m_options.place}, {"remote", name}});
    } catch (const RcloneFailure& failure) {
        end_where_silent(failure);
        if (!is_stopped || (!is_missing(failure) && !is_gone(failure.what())))
            throw;
    }
}

void RemoteFiles::begin(Work work) {
    while (m_work.size() >= most_work)
        look_at_work();
    m_work.push_back(std::move(work));
    look_at_work();
}

// Whether the work is to be tried again; throws where that is no use.
bool RemoteFiles::has_failed(Work& work, const std::string& problem) {
    if (problem.empty())
        return false;
    work.runs = false;
    if (work.method == "operations/deletefile" && is_gone(problem))
        return false;
    if (!std::exchange(work.has_failed, true))
        work.first_failure = Clock::now();
    const auto since =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - work.first_failure);
    const std::chrono::seconds pause = pause_after(since / 2);
    note_failure(work.doing, problem, work.first_failure, pause);
    work.next_try = Clock::now() + pause;
    return true;
}

// Starts what is due, and takes what has ended; waits a moment where nothing has.
void RemoteFiles::look_at_work() {
    bool moved = false;
    for (auto work = m_work.begin(); work != m_work.end();) {
        std::string problem;
        bool ended = false;
        try {
            if (!work->runs && Clock::now() >= work->next_try) {
                work->job = m_calls.begin(work->method, work->arguments);
                work->runs = true;
                moved = true;
            }
            if (work->runs) {
                const RcloneCalls::Job job = m_calls.look_at(work->job);
                ended = job.ended;
                problem = job.error;
            }
        } catch (const RcloneFailure& failure) {
            end_where_silent(failure);
            problem = failure.what();
        }
        if (has_failed(*work, problem) || !(ended || !problem.empty())) {
            ++work;
            continue;
        }
        const std::function<void()> done = std::move(work->done);
        work = m_work.erase(work);
        moved = true;
        if (done)
            done();
    }
    throw_if_interrupted();
    if (!moved && m_work.size() >= most_work)
        std::this_thread::sleep_for(looks_again);
}

void RemoteFiles::finish() {
    while (!m_work.empty()) {
        look_at_work();
        if (!m_work.empty())
            std::this_thread::sleep_for(looks_again);
    }
    confirm();
}

bool RemoteFiles::tells_hashes_at_once() {
    if (!m_abilities)
        m_abilities = insist("ask for the abilities of", [&] {
            return m_calls.call("operations/fsinfo", {{"fs", m_options.place}});
        });
    const nlohmann::json features = m_abilities->value("Features", nlohmann::json::object());
    return !features.value("SlowHash", true);
}

// What is wrong with one of the files that are expected, or empty; those that are there are not
// expected any more.
std::string RemoteFiles::unconfirmed() {
    constexpr std::size_t many_folders = 16; // all of a part are listed at once
    std::map<std::string, RemoteFile> there;
    std::set<std::string> folders;
    for (const Expected& expected : m_expected)
        folders.insert(folder_of(expected.name));
    std::set<std::string> listed;
    for (const Expected& expected : m_expected) {
        std::string folder = folder_of(expected.name);
        if (folders.size() > many_folders)
            folder.resize(std::min(folder.find('/'), folder.size()));
        // A place that reads a file to tell its hash is asked for no others.
        if (folder.empty() || !tells_hashes_at_once()) {
            if (std::optional<RemoteFile> file = look_at(expected.name, Hashes::told))
                there[expected.name] = std::move(*file);
        } else if (listed.insert(folder).second) {
            for (RemoteFile& file : list(folder, Hashes::told))
                there[file.name] = std::move(file);
        }
    }
    std::string problem;
    std::erase_if(m_expected, [&](const Expected& expected) {
        const auto found = there.find(expected.name);
        if (found == there.end()) {
            problem = expected.name + " is not listed";
            return false;
        }
        const auto md5 = found->second.hashes.find("md5");
        if (found->second.size != expected.size)
            problem = expected.name + " is listed with another size";
        else if (md5 != found->second.hashes.end() && md5->second != expected.md5.get())
            problem = expected.name + " is listed with another hash";
        else
            return true;
        return false;
    });
    return problem;
}

// A place may list late what it has.
void RemoteFiles::confirm() {
    const Clock::time_point first = Clock::now();
    std::chrono::seconds pause{0};
    while (!m_expected.empty()) {
        const std::string problem = unconfirmed();
        if (m_expected.empty())
            return;
        pause = pause_after(pause);
        note_failure("confirm a file of", problem, first, pause);
        wait(pause);
    }
}

} // namespace qrtln
