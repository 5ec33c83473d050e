#include "tensor_source.hpp"

#include "error.hpp"
#include "library.hpp"
#include "quote.hpp"

#include <charconv>
#include <fmt/format.h>
#include <sstream>

namespace zxtool {
namespace {

constexpr std::size_t kMaxAxes = 4;
constexpr const char* kNoName = "tensor";
// The entry of a safetensors header that is no tensor.
constexpr const char* kMetadata = "__metadata__";

// A tensor of the floats from an offset on, which are all in the file. The library would open the
// file by its name, which may be another one by now, and takes what a file lacks for zeros.
TensorPtr read_tensor(const RegularFile& file, std::uint64_t offset,
                      const std::vector<std::uint32_t>& shape) {
    zx_clear_error();
    TensorPtr tensor(zx_tensor_create(static_cast<int>(shape.size()), shape.data()));
    if (!tensor) fail_construction(file.path() + ": cannot be read");
    file.read(offset, tensor->data, zx_tensor_size(tensor.get()) * sizeof(float));
    return tensor;
}

}  // namespace

std::vector<std::uint32_t> parse_shape(const std::string& text) {
    std::vector<std::uint32_t> shape;
    const char* at = text.data();
    const char* const end = at + text.size();
    for (bool more = true; more;) {
        std::uint32_t extent = 0;
        const auto [stop, error] = std::from_chars(at, end, extent);
        more = stop != end && *stop == ',';
        if (error != std::errc() || extent == 0 || (!more && stop != end))
            throw Error(Exit::kUsage,
                        fmt::format("--shape: {} is no shape, expected whole numbers from 1 to "
                                    "4294967295 such as 3,4",
                                    quote(text)));
        shape.push_back(extent);
        at = stop + 1;
    }
    if (shape.size() > kMaxAxes)
        throw Error(Exit::kUsage, fmt::format("--shape: {} has {} axes, expected at most {}",
                                              quote(text), shape.size(), kMaxAxes));
    return shape;
}

NamedTensor load_raw(const RegularFile& file, const std::vector<std::uint32_t>& shape) {
    const std::vector<std::uint64_t> extents(shape.begin(), shape.end());
    if (bytes_of(extents, sizeof(float)) != file.size())
        throw Error(Exit::kBadInput,
                    fmt::format("{}: is {} bytes long, expected the length of {} floats",
                                file.path(), file.size(), shape_text(extents)));
    return {read_tensor(file, 0, shape), kNoName};
}

NamedTensor load_tensor(const RegularFile& file, const StoredTensor& tensor) {
    std::vector<std::uint32_t> shape;
    for (const std::uint64_t extent : tensor.shape)
        shape.push_back(static_cast<std::uint32_t>(extent));
    const bool is_named = !tensor.name.empty() && tensor.name != kMetadata;
    return {read_tensor(file, tensor.offset, shape), is_named ? tensor.name : kNoName};
}

}  // namespace zxtool
