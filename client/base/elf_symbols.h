// What a shared library offers, read from its file: nothing of it is loaded or run.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>

namespace qrtln {

// The names that the dynamic symbol table of a 64-bit little-endian ELF file defines (System V ABI,
// chapter 4); none where its sections are stripped. Nothing, with the reason in `problem`, for a
// file that cannot be read or is no such library.
std::optional<std::set<std::string, std::less<>>> defined_symbols(const std::string& file,
                                                                  std::string& problem);

} // namespace qrtln
