#include "client/restore/file_users.h"

#include "client/base/file_descriptor.h"
#include "client/base/text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>

namespace qrtln {

namespace {

using OpenFolder = std::unique_ptr<DIR, int (*)(DIR*)>;

std::string process_name(pid_t pid) {
    std::string path = fmt::format("/proc/{}/comm", pid);
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string name(64, '\0');
    ssize_t got = file ? ::read(file.get(), name.data(), name.size()) : 0;
    name.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    while (!name.empty() && name.back() == '\n')
        name.pop_back();
    return for_terminal(name);
}

} // namespace

FileUsers::FileUsers() {
    OpenFolder processes(::opendir("/proc"), ::closedir);
    if (!processes) {
        m_sees_all = false;
        return;
    }
    while (const dirent* process = ::readdir(processes.get())) {
        std::string name = process->d_name;
        pid_t pid = 0;
        auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (error != std::errc() || end != name.data() + name.size() || pid == ::getpid())
            continue;
        OpenFolder files(::opendir(("/proc/" + name + "/fd").c_str()), ::closedir);
        if (!files) {
            m_sees_all = m_sees_all && errno == ENOENT; // it ended meanwhile
            continue;
        }
        while (const dirent* file = ::readdir(files.get())) {
            struct stat status {};
            if (::fstatat(::dirfd(files.get()), file->d_name, &status, 0) != 0 ||
                !S_ISREG(status.st_mode))
                continue;
            std::vector<pid_t>& users = m_users[{status.st_dev, status.st_ino}];
            if (users.empty() || users.back() != pid)
                users.push_back(pid);
        }
    }
}

std::string FileUsers::describe(const struct stat& file) const {
    auto found = m_users.find({file.st_dev, file.st_ino});
    std::string text;
    if (found == m_users.end())
        return text;
    for (pid_t pid : found->second)
        text += fmt::format("{}{} ({})", text.empty() ? "" : ", ", pid, process_name(pid));
    return text;
}

} // namespace qrtln
