// Writes, from the tool's command line, what its users read elsewhere:
//   zorvex_reference manual-page|bash|zsh FILE
#include "reference.hpp"

#include <cstdlib>
#include <fmt/format.h>
#include <fstream>
#include <string_view>

namespace {

using Writer = std::string (*)(const zxtool::CommandList&);

Writer writer_of(std::string_view what) {
    if (what == "manual-page") return zxtool::manual_page;
    if (what == "bash") return zxtool::bash_completion;
    if (what == "zsh") return zxtool::zsh_completion;
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    const Writer write = argc == 3 ? writer_of(argv[1]) : nullptr;
    if (!write) {
        fmt::print(stderr, "usage: zorvex_reference manual-page|bash|zsh FILE\n");
        return EXIT_FAILURE;
    }
    std::ofstream file(argv[2], std::ios::binary);
    file << write(zxtool::command_list());
    file.close();
    if (!file) {
        fmt::print(stderr, "zorvex_reference: {} cannot be written\n", argv[2]);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
