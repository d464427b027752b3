#include "common/iniparser.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "common/bounded_text.h"
#include "common/strlib.h"
#include "common/trace.h"

namespace {

constexpr int kLineLimit = 1024;
constexpr std::size_t kFullKeySize = 2049;

struct CloseStream {
    void operator()(FILE* stream) const {
        if (stream != stdin) {
            std::fclose(stream);
        }
    }
};
using Stream = std::unique_ptr<FILE, CloseStream>;

struct DeleteDictionary {
    void operator()(dictionary* d) const { dictionary_del(d); }
};

bool isSection(const char* key) {
    return std::strchr(key, ':') == nullptr;
}

// "[section]": the text up to the first "]" or the end, at least one character.
bool parseSection(const char* line, std::string& section) {
    if (*line != '[') {
        return false;
    }
    const std::size_t length = std::strcspn(++line, "]");
    if (length == 0) {
        return false;
    }
    section.assign(line, length);
    return true;
}

// "key = value" and "key = 'value'". The closing quote may be missing, and what follows it is
// dropped.
bool parseEntry(char* line, std::string& key, std::string& value) {
    const std::size_t keyLength = std::strcspn(line, "=");
    if (keyLength == 0 || line[keyLength] == '\0') {
        return false;
    }
    key.assign(line, keyLength);
    const char* text = strskp(line + keyLength + 1);
    if (*text == '\0') {
        return false;
    }
    // An empty pair of quotes is not a quoted value: it is taken as it stands, and emptied later.
    if (*text == '\'' && text[1] != '\'' && text[1] != '\0') {
        ++text;
        value.assign(text, std::strcspn(text, "'"));
    } else {
        value = text;
    }
    return true;
}

void removeLineEnd(char* line) {
    for (const char end : {'\n', '\r'}) {
        const std::size_t length = std::strlen(line);
        if (length > 0 && line[length - 1] == end) {
            line[length - 1] = '\0';
        }
    }
}

void addLine(dictionary* d, char* line, std::string& section) {
    std::string key, value;
    if (parseSection(line, section)) {
        iniparser_add_entry(d, section.c_str(), nullptr, nullptr);
    } else if (parseEntry(line, key, value)) {
        key = strcrop(key.c_str());
        value = value == "\"\"" || value == "''" ? "" : strcrop(value.c_str());
        trace("%l5 iniparser_load: [sec:key=val] [%s:%s=%s]", section.c_str(), key.c_str(),
              value.c_str());
        iniparser_add_entry(d, section.c_str(), key.c_str(), value.c_str());
    }
}

const char* valueText(const dictionary* d, int slot) {
    return d->val[slot] == nullptr ? "" : d->val[slot];
}

// Works out where iniparser_dump_ini puts each value. Leaves the layout unknown for a dictionary
// that is not one section and its entries.
void measureDump(const dictionary* d, IniDumpLayout& layout) {
    if (iniparser_getnsec(d) != 1) {
        return;
    }
    const std::string section = iniparser_getsecname(d, 0);
    const std::string prefix = section + ":";
    const auto slots = static_cast<std::size_t>(d->n);
    std::vector<long> valueAt(slots, -1);
    std::vector<std::size_t> valueSize(slots, 0);
    std::size_t offset = std::strlen("\n[]\n") + section.size();
    for (std::size_t slot = 0; slot < slots; ++slot) {
        const std::string_view key = d->key[slot];
        if (isSection(d->key[slot])) {
            continue;
        }
        if (!key.starts_with(prefix)) {
            return;
        }
        offset += key.size() - prefix.size() + std::strlen("=");
        valueAt[slot] = static_cast<long>(offset);
        valueSize[slot] = std::strlen(valueText(d, static_cast<int>(slot)));
        offset += valueSize[slot] + std::strlen("\n");
    }
    layout.section = section;
    layout.valueAt = std::move(valueAt);
    layout.valueSize = std::move(valueSize);
    layout.end = static_cast<long>(offset);
}

// Writes at an offset and closes. An error that shows only at the close counts.
int writeAt(Stream stream, long offset, const std::string& text) {
    errno = 0;
    bool written = std::fseek(stream.get(), offset, SEEK_SET) == 0 &&
                   std::fwrite(text.data(), 1, text.size(), stream.get()) == text.size();
    int error = errno;
    if (std::fclose(stream.release()) != 0 && written) {
        written = false;
        error = errno;
    }
    return written ? 0 : error;
}

// Whether the stream's file ends where the layout says.
bool hasLayout(FILE* stream, const IniDumpLayout& layout) {
    return std::fseek(stream, 0, SEEK_END) == 0 && std::ftell(stream) == layout.end + 1;
}

// Writes just the entry of `slot`. Returns false, nothing written, when the whole is needed.
bool updateEntry(const dictionary* d, int slot, const char* path, IniDumpLayout& layout,
                 int& error) {
    const auto known = static_cast<int>(layout.valueAt.size());
    if (layout.path != path || known == 0 || slot < 0 || isSection(d->key[slot])) {
        return false;
    }
    const std::string_view key = d->key[slot];
    const std::string_view value = valueText(d, slot);
    const std::size_t prefix = layout.section.size() + 1;
    const bool isChange = d->n == known && layout.valueAt[static_cast<std::size_t>(slot)] >= 0 &&
                          layout.valueSize[static_cast<std::size_t>(slot)] == value.size();
    const bool isAddition =
        d->n == known + 1 && slot == known && key.starts_with(layout.section + ":");
    if (!isChange && !isAddition) {
        return false;
    }
    Stream stream(std::fopen(path, "rb+"));
    if (stream == nullptr || !hasLayout(stream.get(), layout)) {
        return false;
    }
    if (isChange) {
        error = writeAt(std::move(stream), layout.valueAt[static_cast<std::size_t>(slot)],
                        std::string(value));
        return true;
    }
    std::string line(key.substr(prefix));
    line.append("=").append(value).append("\n\n");
    error = writeAt(std::move(stream), layout.end, line);
    const std::size_t nameSize = key.size() - prefix;
    layout.valueAt.push_back(layout.end + static_cast<long>(nameSize + 1));
    layout.valueSize.push_back(value.size());
    layout.end += static_cast<long>(line.size() - 1);
    return true;
}

} // namespace

dictionary* iniparser_load(const char* ininame) {
    const bool fromStandardInput = std::strcmp(ininame, "-") == 0;
    if (fromStandardInput) {
        trace("%l3 iniparser_load: Got ini file name \"%s\" ==>> read from stdin", ininame);
    }
    const Stream in(fromStandardInput ? stdin : std::fopen(ininame, "r"));
    if (in == nullptr) {
        const int error = errno;
        trace("%l0 iniparser_load: Failed to open ini file name \"%s\" (%d)", ininame, error);
        errno = error;
        return nullptr;
    }
    std::unique_ptr<dictionary, DeleteDictionary> d(dictionary_new(0));
    std::string section;
    char szLine[kLineLimit + 1];
    long lines = 0;
    while (std::fgets(szLine, kLineLimit, in.get()) != nullptr) {
        removeLineEnd(szLine);
        trace("%l4 iniparser_load: [%s]", szLine);
        ++lines;
        addLine(d.get(), strskp(szLine), section);
    }
    // Half of an index must not pass for the whole of it.
    if (std::ferror(in.get()) != 0) {
        const int error = errno;
        trace("%l0 iniparser_load: Failed to read ini file name \"%s\" (%d)", ininame, error);
        errno = error;
        return nullptr;
    }
    if (lines == 0) {
        trace("%l3 iniparser_load: Empty input >> return NULL");
        errno = 0;
        return nullptr;
    }
    return d.release();
}

void iniparser_dump_ini(const dictionary* d, FILE* f) {
    if (d == nullptr || f == nullptr) {
        return;
    }
    if (iniparser_getnsec(d) == 0) {
        for (int slot = 0; slot < d->n; ++slot) {
            std::fprintf(f, "%s = %s\n", d->key[slot], valueText(d, slot));
        }
        return;
    }
    // A section's name holds no ":", so an entry belongs to the text before its first one.
    std::unordered_map<std::string_view, std::vector<int>> entries;
    for (int slot = 0; slot < d->n; ++slot) {
        const std::string_view key = d->key[slot];
        if (const std::size_t colon = key.find(':'); colon != std::string_view::npos) {
            entries[key.substr(0, colon)].push_back(slot);
        }
    }
    for (int section = 0; section < d->n; ++section) {
        if (!isSection(d->key[section])) {
            continue;
        }
        std::fprintf(f, "\n[%s]\n", d->key[section]);
        const std::size_t prefix = std::strlen(d->key[section]) + 1;
        for (const int slot : entries[d->key[section]]) {
            std::fprintf(f, "%s=%s\n", d->key[slot] + prefix, valueText(d, slot));
        }
    }
    std::fputs("\n", f);
}

int iniparser_add_entry(dictionary* d, const char* sec, const char* key, const char* val) {
    char szFullKey[kFullKeySize];
    copyText(szFullKey, sec);
    if (key != nullptr) {
        appendText(szFullKey, ":");
        appendText(szFullKey, key);
    }
    dictionary_set(d, szFullKey, val);
    return 0;
}

char* iniparser_getstring(const dictionary* d, const char* key, char* def) {
    return dictionary_get(d, key, def);
}

char* iniparser_getstr(const dictionary* d, const char* key) {
    return iniparser_getstring(d, key, nullptr);
}

int iniparser_getnsec(const dictionary* d) {
    if (d == nullptr) {
        return -1;
    }
    int sections = 0;
    for (int slot = 0; slot < d->n; ++slot) {
        sections += isSection(d->key[slot]) ? 1 : 0;
    }
    return sections;
}

char* iniparser_getsecname(const dictionary* d, int n) {
    if (d == nullptr || n < 0) {
        return nullptr;
    }
    for (int slot = 0; slot < d->n; ++slot) {
        if (isSection(d->key[slot]) && n-- == 0) {
            return d->key[slot];
        }
    }
    return nullptr;
}

IniDumpResult iniparser_update_dump(const dictionary* d, const char* key, const char* path,
                                    IniDumpLayout& layout) {
    int error = 0;
    if (updateEntry(d, dictionary_slot(d, key), path, layout, error)) {
        if (error != 0) {
            layout = {};
        }
        return {error, error == 0 ? "" : "fwrite"};
    }
    layout = {};
    Stream stream(std::fopen(path, "wb"));
    if (stream == nullptr) {
        return {errno, "fopen"};
    }
    errno = 0;
    iniparser_dump_ini(d, stream.get());
    bool written = std::ferror(stream.get()) == 0;
    error = errno;
    if (std::fclose(stream.release()) != 0 && written) {
        written = false;
        error = errno;
    }
    if (!written) {
        return {error == 0 ? EIO : error, "fwrite"};
    }
    measureDump(d, layout);
    layout.path = path;
    return {0, ""};
}
