// Gives a target its seeds, the files of its kept corpus, nothing at all, and for each of these
// some changed ones, always the same: what the fuzzers found stays found where there is no fuzzer.
//   replay TARGET CORPUS ROUNDS   the corpus is the folder TARGET of CORPUS
//   replay --seeds FOLDER         writes the seeds of all targets into folders of theirs

#include "target.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

namespace fs = std::filesystem;
using zx::fuzz::Random;
using zx::fuzz::Target;

std::string contents_of(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> kept_inputs(const fs::path& folder) {
    std::vector<fs::path> paths(fs::directory_iterator(folder), {});
    std::sort(paths.begin(), paths.end());
    std::vector<std::string> inputs(paths.size());
    std::transform(paths.begin(), paths.end(), inputs.begin(), contents_of);
    return inputs;
}

int replay(const Target& target, const fs::path& folder, int rounds) {
    std::vector<std::string> inputs = target.seeds();
    const std::vector<std::string> kept = kept_inputs(folder);
    zx::fuzz::require(!kept.empty(), "a target has a corpus");
    inputs.insert(inputs.end(), kept.begin(), kept.end());
    inputs.emplace_back();
    Random random(1);
    for (const std::string& input : inputs) {
        target.read(input);
        std::string changed = input;
        for (int round = 0; round < rounds; ++round) {
            constexpr std::size_t kMaxBytes = 4096;
            changed = target.mutate(std::move(changed), random);
            changed.resize(std::min(changed.size(), kMaxBytes));
            target.read(changed);
        }
    }
    std::printf("%zu inputs, %d changes of each\n", inputs.size(), rounds);
    return 0;
}

int write_seeds(const fs::path& folder) {
    for (const Target& target : zx::fuzz::targets()) {
        const fs::path place = folder / target.name;
        fs::create_directories(place);
        std::size_t number = 0;
        for (const std::string& seed : target.seeds())
            std::ofstream(place / ("seed" + std::to_string(number++)), std::ios::binary) << seed;
    }
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    const std::vector<std::string> words(arguments, arguments + count);
    if (count == 3 && words[1] == "--seeds") return write_seeds(words[2]);
    zx::fuzz::require(count == 4, "the arguments are TARGET CORPUS ROUNDS or --seeds FOLDER");
    return replay(zx::fuzz::target_named(words[1]), fs::path(words[2]) / words[1],
                  std::stoi(words[3]));
}
