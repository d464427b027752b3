// A folder of a test's own, removed with everything in it at the end of the test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class TemporaryFolder {
  public:
    TemporaryFolder() {
        // No "-" before the random part: "-R" and "-o" are options wherever they stand in INFO.
        std::string pattern =
            (std::filesystem::temp_directory_path() / "qrtln-test_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot create " + pattern);
        }
        m_path = pattern;
    }
    ~TemporaryFolder() {
        // A test may have taken rights away or removed the folder itself: nothing more can be done.
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    // Its full path, without a trailing "/".
    const std::string& path() const { return m_path; }

    // The full path of a name in it, which may hold "/". Creates nothing.
    std::string file(const std::string& name) const { return m_path + "/" + name; }

    // Creates a directory with every missing level; returns its full path.
    std::string makeDirectory(const std::string& name) const {
        std::filesystem::create_directories(file(name));
        return file(name);
    }

    // Writes a file, whose missing directories are created; returns its full path.
    std::string write(const std::string& name, const std::string& content = "") const {
        const std::string full = file(name);
        std::filesystem::create_directories(std::filesystem::path(full).parent_path());
        std::ofstream stream(full, std::ios::binary | std::ios::trunc);
        stream << content;
        if (!stream.flush()) {
            throw std::runtime_error("cannot write " + full);
        }
        return full;
    }

    // The content of a file. Throws when it cannot be read.
    std::string read(const std::string& name) const {
        std::ifstream stream(file(name), std::ios::binary);
        if (!stream) {
            throw std::runtime_error("cannot read " + file(name));
        }
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

    bool exists(const std::string& name) const { return std::filesystem::exists(file(name)); }

  private:
    std::string m_path;
};
