// The readers of the library.

#include "allocation_limit.hpp"
#include "bytes.hpp"
#include "expected_load.hpp"
#include "kernel_file_target.hpp"
#include "memory_file.hpp"
#include "mutators.hpp"
#include "samples.hpp"
#include "support/owned.hpp"
#include "target.hpp"
#include "zorvex.h"

#include <array>
#include <cstring>

namespace zx::fuzz {

namespace {

using zx::test::ModelPtr;
using zx::test::TensorPtr;

void quiet() {
    zx_set_verbosity(0);
    zx_clear_error();
}

std::string saved(const zx_model_t& model) {
    static MemoryFile file;
    require(zx_model_save(&model, file.path()) == ZX_OK, "a loaded model can be saved");
    return file.contents();
}

void read_model_file(std::string_view bytes) {
    static MemoryFile file;
    file.hold(bytes);
    const ExpectedModel expected = expected_model(bytes, allocation_limit());
    quiet();
    const ModelPtr model(zx_model_load(file.path()));
    require_record(expected.refusal);
    require((model == nullptr) == (expected.refusal.code != ZX_OK),
            "a model is loaded if nothing is recorded");
    if (!model) return;
    require_is(expected, *model);

    const std::string first = saved(*model);
    file.hold(first);
    const ModelPtr again(zx_model_load(file.path()));
    require(again != nullptr, "a saved model can be loaded");
    require(saved(*again) == first, "saving and loading keeps every byte");
}

void read_tensor_file(std::string_view bytes) {
    static MemoryFile file;
    file.hold(bytes);
    const ExpectedSingle expected = expected_tensor_file(bytes, allocation_limit());
    quiet();
    const TensorPtr tensor(zx_tensor_load(file.path()));
    require_record(expected.refusal);
    require((tensor == nullptr) == (expected.refusal.code != ZX_OK),
            "a tensor is loaded if nothing is recorded");
    if (!tensor) return;
    expected.tensor.require_is(*tensor);

    require(zx_tensor_save(tensor.get(), file.path(), "x") == ZX_OK,
            "a loaded tensor can be saved");
    const TensorPtr again(zx_tensor_load(file.path()));
    require(again && again->ndim == tensor->ndim && again->size == tensor->size &&
                std::memcmp(again->dims, tensor->dims, sizeof(again->dims)) == 0 &&
                std::memcmp(again->data, tensor->data, tensor->size * sizeof(float)) == 0,
            "saving and loading keeps a tensor");
}

// The shape, which a caller would give, stands in front of the file: a byte for the number of axes,
// then four extents.
constexpr std::size_t kRawFileAt = 1 + 4 * sizeof(std::uint32_t);

void read_raw_file(std::string_view bytes) {
    static MemoryFile file;
    const std::uint32_t ndim = number_at<std::uint8_t>(bytes, 0);
    std::array<std::uint32_t, 4> dims{};
    for (std::size_t axis = 0; axis < dims.size(); ++axis)
        dims[axis] = number_at<std::uint32_t>(bytes, 1 + axis * sizeof(std::uint32_t));
    const std::string_view raw = bytes.substr(std::min(bytes.size(), kRawFileAt));
    file.hold(raw);

    ExpectedSingle expected = expected_tensor(ndim, dims.data(), allocation_limit());
    if (expected.refusal.code == ZX_OK && raw.size() < expected.tensor.bytes)
        expected.refusal = {ZX_ERR_FILE_READ, "src/zx_serialize", "Incomplete read"};
    quiet();
    const TensorPtr tensor(zx_tensor_from_raw(file.path(), ndim, dims.data()));
    require_record(expected.refusal);
    require((tensor == nullptr) == (expected.refusal.code != ZX_OK),
            "a tensor is read if nothing is recorded");
    if (!tensor) return;
    expected.tensor.data = raw.substr(0, expected.tensor.bytes);
    expected.tensor.require_is(*tensor);
}

zx_format_t expected_format(std::string_view path, std::string_view bytes) {
    const std::size_t dot = path.rfind('.');
    const std::string_view extension =
        dot == std::string_view::npos ? std::string_view() : path.substr(dot);
    if (extension == ".zxm") return ZX_FORMAT_NATIVE;
    if (extension == ".npy") return ZX_FORMAT_NPY;
    if (extension == ".safetensors") return ZX_FORMAT_SAFETENSORS;
    if (extension == ".json") return ZX_FORMAT_JSON;
    if (extension == ".bin" || extension == ".raw") return ZX_FORMAT_RAW;
    if (bytes.size() < 8) return ZX_FORMAT_UNKNOWN;
    if (bytes.starts_with("ZXQM")) return ZX_FORMAT_NATIVE;
    if (bytes.starts_with("\x93NUMPY")) return ZX_FORMAT_NPY;
    return bytes.starts_with("{") ? ZX_FORMAT_JSON : ZX_FORMAT_UNKNOWN;
}

// A name stands in front of the file, up to the first zero byte.
void detect_format(std::string_view bytes) {
    static MemoryFile file;
    static const NameFolder folder;
    constexpr std::size_t kMaxName = 200;
    const std::string_view name = bytes.substr(0, std::min(bytes.find('\0'), kMaxName));
    const std::string_view content = bytes.substr(std::min(bytes.size(), name.size() + 1));
    file.hold(content);
    quiet();
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) {
        require(zx_detect_format(file.path()) == expected_format(file.path(), content),
                "a file without a name has the format of its first bytes");
    } else {
        const std::string path = folder.give(std::string(name), file);
        require(zx_detect_format(path.c_str()) == expected_format(path, content),
                "a file has the format of its extension, or else of its first bytes");
        NameFolder::take(path);
    }
    require(zx_get_last_error() == ZX_OK, "telling formats apart records nothing");
}

std::vector<std::string> tensor_seeds() {
    std::vector<std::string> seeds = sample_tensors();
    for (const std::string& model : sample_models()) seeds.push_back(model);
    return seeds;
}

std::vector<std::string> raw_seeds() {
    const auto extent = [](std::uint32_t value) { return bytes_of(value); };
    const std::string data(32, '\x3f');
    return {"\x01" + extent(8) + extent(0) + extent(0) + extent(0) + data,
            "\x02" + extent(2) + extent(4) + extent(0) + extent(0) + data,
            "\x04" + extent(1) + extent(2) + extent(2) + extent(2) + data};
}

std::vector<std::string> format_seeds() {
    using namespace std::string_literals;
    return {"m.zxm\0ZXQM----"s, "a.tar.npy\0"s,     "w.safetensors\0"s, "c.json\0{}"s,
            "x.bin\0"s,         "x.raw\0"s,         "x\0ZXQM----"s,     "x\0\x93NUMPY\1\0"s,
            "x\0{\"a\": 1}"s,   "x.ZXM\0 ZXQM---"s, "\0{      }"s};
}

constexpr Target kTargets[] = {
    {"model_file", read_model_file, mutate_container, sample_models},
    {"tensor_file", read_tensor_file, mutate_container, tensor_seeds},
    {"raw_file", read_raw_file, mutate_raw, raw_seeds},
    {"kernel_file", read_kernel_file, mutate_kernel, kernel_seeds},
    {"format", detect_format, mutate_format, format_seeds},
};

}  // namespace

std::span<const Target> targets() {
    return kTargets;
}

}  // namespace zx::fuzz
