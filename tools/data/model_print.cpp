#include "model_print.hpp"

#include "container.hpp"
#include "error.hpp"
#include "regular_file.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace zxtool {

namespace {

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Error(Exit::kInputOutput, fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
    throw Error(Exit::kBadModel, fmt::format("{}: {}", path, what));
}

std::uint64_t length_of(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) fail(path, "cannot be opened");
    if (!S_ISREG(status.st_mode)) refuse(path, "is no regular file, expected a model file");
    return static_cast<std::uint64_t>(status.st_size);
}

ContainerHeader header_of(const RegularFile& file) {
    ContainerHeader header{};
    if (file.size() < sizeof(header) || !is_container(file))
        refuse(file.path(), "is no model file");
    file.read(0, &header, sizeof(header));
    return header;
}

}  // namespace

ModelPrint print_of(const std::string& path) {
    const RegularFile file(path);
    const std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state(XXH3_createState(),
                                                                                XXH3_freeState);
    if (!state) throw std::bad_alloc();
    XXH3_64bits_reset(state.get());
    file.for_each_block(0, file.size(), [&](std::uint64_t, std::string_view bytes) {
        XXH3_64bits_update(state.get(), bytes.data(), bytes.size());
    });
    return {.bytes = file.size(), .hash = XXH3_64bits_digest(state.get())};
}

std::uint64_t declared_length(const std::string& path) {
    return header_of(RegularFile(path)).file_size;
}

void check_model_file(const std::string& path) {
    const std::uint64_t length = length_of(path);
    const RegularFile file(path);
    const ContainerHeader header = header_of(file);
    if (length != header.file_size)
        refuse(path, fmt::format("model file is {} bytes long, expected the {} that its head says",
                                 length, header.file_size));

    const std::uint32_t count = header.num_tensors;
    if (count == 0 || descriptor_at(count) > length)
        refuse(path, fmt::format("model file is damaged: it says that it has {} tensors", count));
    std::uint64_t most_rows = 0;
    std::uint64_t most_columns = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        ContainerDescriptor descriptor{};
        file.read(descriptor_at(i), &descriptor, sizeof(descriptor));
        most_rows = std::max<std::uint64_t>(most_rows, descriptor.dims[0]);
        most_columns = std::max<std::uint64_t>(most_columns, descriptor.dims[1]);
    }
    // Two numbers of 32 bits: the product fits.
    if (most_rows * most_columns > length / sizeof(float))
        refuse(path, fmt::format("model file is damaged: a table of {} x {} is not in it",
                                 most_rows, most_columns));
}

}  // namespace zxtool
