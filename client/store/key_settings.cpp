#include "client/store/key_settings.h"

#include "client/base/child_program.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/text.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::size_t maximal_passphrase = 4096;
constexpr std::size_t smallest_key_file = 32;
constexpr std::size_t maximal_key_file = std::size_t{1} << 20;

// A pipe, as `<(…)` gives one, is as good as a file.
std::string read_secret_file(const std::string& path, const char* what, std::size_t limit) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot open the {} {}: {}", what, for_terminal(path),
                                      system_error_text(errno)));
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        throw ClientError(
            ExitCode::no_permission,
            fmt::format("others can use the {} {}, too", what, for_terminal(path)),
            fmt::format("chmod 600 {}; if they may have read it, take another secret for the store "
                        "with `qrtln key add` and remove the old one",
                        for_terminal(path)));
    std::string bytes(limit + 1, '\0');
    const ssize_t got =
        read_up_to(file.get(), std::as_writable_bytes(std::span(bytes.data(), bytes.size())));
    if (got < 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot read the {} {}: {}", what, for_terminal(path),
                                      system_error_text(static_cast<int>(-got))));
    if (static_cast<std::size_t>(got) > limit)
        throw ClientError(ExitCode::failed,
                          fmt::format("the {} {} has more than {} bytes: it is another file", what,
                                      for_terminal(path), limit));
    bytes.resize(static_cast<std::size_t>(got));
    return bytes;
}

// What editors and `echo` put behind it is not part of it.
Secret passphrase(std::string bytes, const std::string& from) {
    if (bytes.ends_with('\n'))
        bytes.pop_back();
    if (bytes.ends_with('\r'))
        bytes.pop_back();
    if (bytes.empty() || bytes.find('\0') != std::string::npos)
        throw ClientError(ExitCode::failed, from + " gave no passphrase, but " +
                                                (bytes.empty() ? "nothing" : "binary data"));
    return {true, std::move(bytes)};
}

Secret passphrase_of_command(const std::string& command) {
    ProgramResult result = run_program("/bin/sh", {"sh", "-c", command}, "");
    if (result.exit_code != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("the passphrase command `{}` ended with {}{}{}",
                                      for_terminal(command), result.exit_code,
                                      result.errors.empty() ? "" : ": ",
                                      for_terminal(result.errors)));
    if (result.output.size() > maximal_passphrase)
        throw ClientError(ExitCode::failed,
                          fmt::format("the passphrase command `{}` gave more than {} bytes",
                                      for_terminal(command), maximal_passphrase));
    return passphrase(std::move(result.output),
                      fmt::format("the passphrase command `{}`", for_terminal(command)));
}

} // namespace

KeySettings& key_settings() {
    static KeySettings settings;
    return settings;
}

const std::vector<Secret>& KeySettings::secrets() {
    if (m_secrets.empty())
        m_secrets = read_secrets(*this);
    return m_secrets;
}

std::vector<Secret> read_secrets(const KeySettings& keys) {
    std::vector<Secret> secrets;
    for (const std::string& path : keys.key_files) {
        secrets.push_back({false, read_secret_file(path, "key file", maximal_key_file)});
        if (secrets.back().bytes.size() < smallest_key_file)
            throw ClientError(ExitCode::failed,
                              fmt::format("the key file {} has less than {} bytes",
                                          for_terminal(path), smallest_key_file),
                              fmt::format("make one: (umask 077; head -c {} /dev/urandom > FILE)",
                                          smallest_key_file));
    }
    for (const std::string& path : keys.passphrase_files)
        secrets.push_back(passphrase(read_secret_file(path, "passphrase file", maximal_passphrase),
                                     "the passphrase file " + for_terminal(path)));
    for (const std::string& command : keys.passphrase_commands)
        secrets.push_back(passphrase_of_command(command));
    return secrets;
}

} // namespace qrtln
