#include "reference/command_text.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace qrtln::reference {

namespace {

void write_text(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    stream << text;
    stream.close();
    if (!stream)
        throw std::runtime_error("cannot write " + file.string());
}

} // namespace

int write_reference(const CLI::App& app, const std::string& folder, const std::string& more) {
    try {
        const std::filesystem::path to = folder;
        const CommandText program = command_text(app);
        const std::string& name = program.words.front();
        for (const CommandText* command : all_of(program))
            write_text(to / "man" / (joined(command->words, "-") + ".1.scd"),
                       man_page(*command, program, more));
        write_text(to / "bash" / name, bash_completion(program));
        write_text(to / "zsh" / ("_" + name), zsh_completion(program));
        write_text(to / "fish" / (name + ".fish"), fish_completion(program));
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}

} // namespace qrtln::reference
