#include "client/base/elf_symbols.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <span>
#include <stdexcept>
#include <vector>

namespace qrtln {

namespace {

constexpr std::size_t largest_table = std::size_t{64} << 20; // bytes

// Every place and length in the file may be wrong. Throws std::runtime_error.
class ElfFile {
  public:
    explicit ElfFile(const std::string& path)
        : m_file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
        if (m_file.get() < 0)
            throw std::runtime_error(system_error_text(errno));
        m_header = table<Elf64_Ehdr>(0, sizeof(Elf64_Ehdr))[0];
        if (std::memcmp(m_header.e_ident, ELFMAG, SELFMAG) != 0 ||
            m_header.e_ident[EI_CLASS] != ELFCLASS64 || m_header.e_ident[EI_DATA] != ELFDATA2LSB ||
            m_header.e_type != ET_DYN || m_header.e_shentsize != sizeof(Elf64_Shdr))
            throw std::runtime_error("it is no 64-bit shared library");
        if (m_header.e_shnum != 0) // they need not be there
            m_sections = table<Elf64_Shdr>(m_header.e_shoff, m_header.e_shnum * sizeof(Elf64_Shdr));
    }

    std::set<std::string, std::less<>> defined_symbols() const {
        auto symbols = std::find_if(m_sections.begin(), m_sections.end(), [](const auto& section) {
            return section.sh_type == SHT_DYNSYM;
        });
        if (symbols == m_sections.end())
            return {};
        if (symbols->sh_link >= m_sections.size())
            throw std::runtime_error("its tables are not whole");
        const Elf64_Shdr& strings = m_sections[symbols->sh_link];
        const std::vector<char> names = table<char>(strings.sh_offset, strings.sh_size);
        std::set<std::string, std::less<>> defined;
        for (const Elf64_Sym& symbol : table<Elf64_Sym>(symbols->sh_offset, symbols->sh_size)) {
            if (symbol.st_shndx == SHN_UNDEF || symbol.st_name >= names.size())
                continue;
            const char* name = names.data() + symbol.st_name;
            defined.emplace(name, ::strnlen(name, names.size() - symbol.st_name));
        }
        return defined;
    }

  private:
    // The whole entries in these bytes of the file, at least one.
    template <typename Entry>
    std::vector<Entry> table(std::uint64_t offset, std::uint64_t size) const {
        const bool fits = size >= sizeof(Entry) && size <= largest_table &&
                          offset <= static_cast<std::uint64_t>(INT64_MAX);
        std::vector<Entry> entries(fits ? size / sizeof(Entry) : 0);
        const auto bytes = std::as_writable_bytes(std::span(entries));
        if (!fits || ::lseek(m_file.get(), static_cast<off_t>(offset), SEEK_SET) < 0 ||
            read_up_to(m_file.get(), bytes) != static_cast<ssize_t>(bytes.size()))
            throw std::runtime_error("its tables are not whole");
        return entries;
    }

    FileDescriptor m_file;
    Elf64_Ehdr m_header{};
    std::vector<Elf64_Shdr> m_sections;
};

} // namespace

std::optional<std::set<std::string, std::less<>>> defined_symbols(const std::string& file,
                                                                  std::string& problem) {
    try {
        return ElfFile(file).defined_symbols();
    } catch (const std::runtime_error& failure) {
        problem = failure.what();
        return std::nullopt;
    }
}

} // namespace qrtln
