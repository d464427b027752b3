#include "client/restore/created_folders.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/safe_folder.h"
#include "client/restore/safe_file.h"
#include "client/sets/manifest.h"

#include <unistd.h>

namespace qrtln {

FolderCreated CreatedFolders::callback(const std::string& root) {
    return [this, root](int fd, const std::string& relative) {
        struct stat above {};
        if (::fstatat(fd, "..", &above, 0) == 0) {
            if (::geteuid() == 0 && ::fchown(fd, above.st_uid, above.st_gid) != 0)
                m_warnings.push_back(std::string("cannot set the owner of ")
                                         .append(root)
                                         .append("/")
                                         .append(relative)
                                         .append(": ")
                                         .append(system_error_text(errno)));
            (void)::fchmod(fd, above.st_mode & 0777);
        }
        m_created.emplace_back(root, relative);
    };
}

void CreatedFolders::give_metadata_back(
    const std::function<const ManifestItem*(const std::string& root, const std::string& relative)>&
        original) {
    for (auto created = m_created.rbegin(); created != m_created.rend(); ++created) {
        const auto& [root, relative] = *created;
        const ManifestItem* item = original(root, relative);
        if (item == nullptr)
            continue;
        std::string problem;
        FileDescriptor folder = SafeFolder(root).open_folder(relative, problem);
        if (folder)
            problem = apply_metadata(folder.get(), *item);
        if (!problem.empty())
            m_warnings.push_back(
                std::string(root).append("/").append(relative).append(": ").append(problem));
    }
}

std::string give_empty_data_directory(const std::string& directory,
                                      const std::map<std::string, ManifestItem>& folders) {
    auto original = folders.find(directory);
    struct stat status {};
    std::vector<std::string> names =
        names_in_folder(directory).value_or(std::vector<std::string>{"unreadable"});
    std::erase(names, "lost+found");
    if (::geteuid() != 0 || original == folders.end() || !names.empty() ||
        ::stat(directory.c_str(), &status) != 0 || status.st_uid != 0)
        return {};
    std::string problem;
    if (FileDescriptor folder = SafeFolder(directory).open_folder("", problem))
        problem = apply_metadata(folder.get(), original->second);
    if (!problem.empty())
        return directory + ": was empty and root's: " + problem;
    bool roots = ::stat(directory.c_str(), &status) == 0 && status.st_uid == 0; // as before
    return roots ? "" : directory + ": was empty and root's, and is the lost one's owner's again";
}

} // namespace qrtln
