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

// The slots of each section's entries. A section's name holds no ":", so an entry belongs to the
// text before its first one.
std::unordered_map<std::string_view, std::vector<int>> entriesOfSections(const dictionary* d) {
    std::unordered_map<std::string_view, std::vector<int>> entries;
    for (int slot = 0; slot < d->n; ++slot) {
        const std::string_view key = d->key[slot];
        if (const std::size_t colon = key.find(':'); colon != std::string_view::npos) {
            entries[key.substr(0, colon)].push_back(slot);
        }
    }
    return entries;
}

// Works out where iniparser_dump_ini puts each value. Leaves the layout unknown for a dictionary
// without a section, which is written in another form.
void measureDump(const dictionary* d, IniDumpLayout& layout) {
    if (iniparser_getnsec(d) < 1) {
        // Not run by a test: an index always has a section.
        return;
    }
    auto entries = entriesOfSections(d);
    const auto slots = static_cast<std::size_t>(d->n);
    layout.valueAt.assign(slots, -1);
    layout.valueSize.assign(slots, 0);
    std::size_t offset = 0;
    for (int section = 0; section < d->n; ++section) {
        if (!isSection(d->key[section])) {
            continue;
        }
        layout.section = d->key[section];
        offset += std::strlen("\n[]\n") + layout.section.size();
        for (const int entry : entries[d->key[section]]) {
            const auto slot = static_cast<std::size_t>(entry);
            offset += std::strlen(d->key[slot]) - layout.section.size(); // "=" stands for ":"
            layout.valueAt[slot] = static_cast<long>(offset);
            layout.valueSize[slot] = std::strlen(valueText(d, entry));
            offset += layout.valueSize[slot] + std::strlen("\n");
        }
    }
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

// Whether the whole may be written once more: a small file at every change, and a large one only a
// few times its size in all.
bool affordsWhole(const IniDumpLayout& layout) {
    constexpr long kFree = 1 << 20;
    constexpr long kTimes = 8;
    return layout.wholes + layout.end <= kFree + kTimes * layout.end;
}

// Writes just the entry of `slot`. Returns false, nothing written, when the whole is needed.
bool updateEntry(const dictionary* d, int slot, const char* path, IniDumpLayout& layout,
                 int& error) {
    const auto known = static_cast<int>(layout.valueAt.size());
    if (layout.path != path || known == 0 || slot < 0 || slot > known || d->n > known + 1 ||
        isSection(d->key[slot])) {
        return false;
    }
    const std::string_view key = d->key[slot];
    const std::string_view value = valueText(d, slot);
    const std::string_view section = key.substr(0, key.find(':'));
    const auto at = static_cast<std::size_t>(slot);
    const bool isNew = slot == known;
    const bool isInPlace =
        !isNew && layout.valueAt[at] >= 0 && layout.valueSize[at] == value.size();
    const bool isAtTheEnd = isNew && section == layout.section;
    if (dictionary_slot(d, std::string(section).c_str()) < 0) {
        return false; // the whole is without it
    }
    if (!isInPlace && !isAtTheEnd && affordsWhole(layout)) {
        return false;
    }
    Stream stream(std::fopen(path, "rb+"));
    if (stream == nullptr || !hasLayout(stream.get(), layout)) {
        return false;
    }
    if (isInPlace) {
        error = writeAt(std::move(stream), layout.valueAt[at], std::string(value));
        return true;
    }
    // A section may come again and an entry too: readers go by the last.
    std::string text;
    if (section != layout.section) {
        layout.section = section;
        text.append("\n[").append(section).append("]\n");
    }
    text.append(key.substr(section.size() + 1)).append("=");
    layout.valueAt.resize(static_cast<std::size_t>(d->n), -1);
    layout.valueSize.resize(static_cast<std::size_t>(d->n), 0);
    layout.valueAt[at] = layout.end + static_cast<long>(text.size());
    layout.valueSize[at] = value.size();
    text.append(value).append("\n");
    error = writeAt(std::move(stream), layout.end, text + "\n");
    layout.end += static_cast<long>(text.size());
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
        // Not run by a test: the module passes no nullptr here.
        return;
    }
    if (iniparser_getnsec(d) == 0) {
        // Not run by a test: the module's files have sections.
        for (int slot = 0; slot < d->n; ++slot) {
            std::fprintf(f, "%s = %s\n", d->key[slot], valueText(d, slot));
        }
        return;
    }
    auto entries = entriesOfSections(d);
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
        // Not run by a test: the module passes no nullptr here.
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
    const long wholes = layout.path == path ? layout.wholes : 0;
    layout = {};
    Stream stream(std::fopen(path, "wb"));
    if (stream == nullptr) {
        // Not run by a test: open; a dump to a file that cannot be opened.
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
    layout.wholes = wholes + layout.end;
    return {0, ""};
}
