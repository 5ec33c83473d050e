#include "tensor_source.hpp"

#include "error.hpp"
#include "library.hpp"
#include "quote.hpp"
#include "stored_tensor.hpp"

#include <charconv>
#include <fmt/format.h>
#include <sstream>

namespace zxtool {
namespace {

constexpr std::size_t kMaxAxes = 4;

TensorPtr expect_loaded(zx_tensor_t* tensor, const std::string& path) {
    if (tensor == nullptr) fail_construction(path + ": cannot be read");
    return TensorPtr(tensor);
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

NamedTensor load_raw(const std::string& path, const std::vector<std::uint32_t>& shape) {
    const RegularFile file(path);
    const std::vector<std::uint64_t> extents(shape.begin(), shape.end());
    if (bytes_of(extents, sizeof(float)) != file.size())
        throw Error(Exit::kBadInput,
                    fmt::format("{}: is {} bytes long, expected the length of {} floats", path,
                                file.size(), shape_text(extents)));
    zx_clear_error();
    return {expect_loaded(zx_tensor_from_raw(path.c_str(), static_cast<std::uint32_t>(shape.size()),
                                             shape.data()),
                          path),
            "tensor"};
}

NamedTensor load_tensor(const RegularFile& file, const std::string& name) {
    zx_clear_error();
    return {expect_loaded(zx_tensor_load(file.path().c_str()), file.path()),
            name.empty() ? "tensor" : name};
}

}  // namespace zxtool
