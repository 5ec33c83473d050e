#include "expected_load.hpp"

#include "bytes.hpp"
#include "target.hpp"
#include "zx_serialize/model_file_bytes.hpp"

#include <algorithm>
#include <array>

namespace zx::fuzz {

namespace {

using namespace zx::test;  // where the fields stand

constexpr const char* kSerialize = "src/zx_serialize";
constexpr const char* kMemory = "src/zx_memory";
constexpr std::array<std::string_view, 4> kNames = {"mf.user_embeddings", "mf.item_embeddings",
                                                    "mf.user_biases", "mf.item_biases"};

std::string_view name_at(std::string_view file, std::size_t descriptor) {
    const std::string_view field = file.substr(descriptor, kNdimInDescriptor);
    return field.substr(0, field.find('\0'));
}

bool contains(std::string_view name, std::string_view part) {
    return name.find(part) != std::string_view::npos;
}

// Reads as a file is read: from a place that only a seek that succeeds changes.
class Position {
  public:
    Position(std::string_view file, std::uint64_t at) : file_(file), at_(at) {}

    // Fails where the offset, read as a signed number, is negative.
    void seek(std::uint64_t offset) {
        if (offset <= INT64_MAX) at_ = offset;
    }
    std::string_view read(std::uint64_t bytes) {
        if (at_ >= file_.size()) return {};
        const std::string_view read = file_.substr(at_, bytes);
        at_ += read.size();
        return read;
    }

  private:
    std::string_view file_;
    std::uint64_t at_;
};

void take_shape(std::string_view file, std::uint32_t count, ExpectedModel& model) {
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t at = descriptor_at(i);
        const std::string_view name = name_at(file, at);
        const auto rows = number_at<std::uint32_t>(file, at + kDimsInDescriptor);
        if (contains(name, "user_embeddings")) {
            model.num_users = rows;
            model.d = number_at<std::uint32_t>(file, at + kDimsInDescriptor + 4);
        }
        if (contains(name, "item_embeddings")) model.num_items = rows;
        if (contains(name, "biases")) model.use_bias = true;
    }
}

// Both tables are tried before either is looked at: the last failure is the one on record.
void create(ExpectedModel& model, std::uint64_t limit) {
    const std::uint32_t shapes[4][2] = {{model.num_users, model.d},
                                        {model.num_items, model.d},
                                        {model.num_users, 1},
                                        {model.num_items, 1}};
    for (std::size_t i = 0; i < (model.use_bias ? 4U : 2U); ++i) {
        if (i >= 2 && model.refusal.code != ZX_OK) return;
        const ExpectedSingle tensor = expected_tensor(2, shapes[i], limit);
        if (tensor.refusal.code != ZX_OK) model.refusal = tensor.refusal;
        model.described_bytes += tensor.tensor.bytes;
        model.tensors[i] = tensor.tensor;
        model.tensors[i].zero_behind = i >= 2;
    }
}

void read_data(std::string_view file, std::uint32_t count, ExpectedModel& model) {
    Position position(file, descriptor_at(count));
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t at = descriptor_at(i);
        const auto* const name = std::find(kNames.begin(), kNames.end(), name_at(file, at));
        if (name == kNames.end()) continue;
        ExpectedTensor& tensor = model.tensors[name - kNames.begin()];
        const auto size = number_at<std::uint64_t>(file, at + kSizeInDescriptor);
        const bool fits = size <= tensor.bytes;
        if (fits) position.seek(number_at<std::uint64_t>(file, at + kOffsetInDescriptor));
        const std::string_view read = fits ? position.read(size) : std::string_view();
        if (!fits || read.size() != size) {
            model.refusal = {ZX_ERR_FILE_READ, kSerialize, "Failed to read tensor data"};
            return;
        }
        tensor.data.replace(0, read.size(), read);
    }
}

Refusal refusal_of_head(std::string_view file, std::uint64_t limit) {
    if (file.size() < kHeaderBytes) return {ZX_ERR_FILE_READ, kSerialize, "Failed to read header"};
    if (!file.starts_with("ZXQM")) return {ZX_ERR_DATA_CORRUPTED, kSerialize, "Invalid file magic"};
    if (number_at<std::uint32_t>(file, kVersionAt) > 1)
        return {ZX_ERR_VERSION_MISMATCH, kSerialize, "File version newer than library"};
    const std::uint64_t table =
        std::uint64_t{number_at<std::uint32_t>(file, kNumTensorsAt)} * kDescriptorBytes;
    if (table == 0 || table > limit)
        return {ZX_ERR_OUT_OF_MEMORY, kSerialize, "Failed to allocate descriptors"};
    if (file.size() - kHeaderBytes < table)
        return {ZX_ERR_FILE_READ, kSerialize, "Failed to read descriptors"};
    if (number_at<std::uint32_t>(file, kModelTypeAt) != 0)
        return {ZX_ERR_MODEL_TYPE_MISMATCH, kSerialize, "Unknown model type"};
    return {};
}

}  // namespace

ExpectedModel expected_model(std::string_view file, std::uint64_t limit) {
    ExpectedModel model;
    model.refusal = refusal_of_head(file, limit);
    if (model.refusal.code != ZX_OK) return model;
    const auto count = number_at<std::uint32_t>(file, kNumTensorsAt);
    take_shape(file, count, model);
    create(model, limit);
    if (model.refusal.code == ZX_OK) read_data(file, count, model);
    return model;
}

ExpectedSingle expected_tensor(std::uint32_t ndim, const std::uint32_t* dims, std::uint64_t limit) {
    if (ndim < 1 || ndim > 4)
        return {{ZX_ERR_INVALID_ARGUMENT, kMemory, "Invalid tensor dimensions"}, {}};
    const Refusal overflow = {ZX_ERR_OVERFLOW, kMemory, "Tensor size overflow"};
    std::uint64_t count = 1;
    for (std::uint32_t axis = 0; axis < ndim; ++axis) {
        if (count != 0 && dims[axis] != 0 && count > INT64_MAX / dims[axis]) return {overflow, {}};
        count *= dims[axis];
    }
    if (count == 0) return {overflow, {}};
    if (count > limit / sizeof(float))
        return {{ZX_ERR_OUT_OF_MEMORY, kMemory, "Failed to allocate tensor data"}, {}};
    return {{}, {.bytes = count * sizeof(float), .data = {}, .zero_behind = true}};
}

ExpectedSingle expected_tensor_file(std::string_view file, std::uint64_t limit) {
    if (!file.starts_with("ZXQM"))
        return {{ZX_ERR_DATA_CORRUPTED, kSerialize, "Invalid magic"}, {}};
    // What a short file does not give is zero.
    const std::size_t at = descriptor_at(0);
    const auto ndim = number_at<std::uint32_t>(file, at + kNdimInDescriptor);
    std::uint32_t dims[4];
    for (std::size_t axis = 0; axis < 4; ++axis)
        dims[axis] = number_at<std::uint32_t>(file, at + kDimsInDescriptor + 4 * axis);
    ExpectedSingle tensor = expected_tensor(ndim, dims, limit);
    if (tensor.refusal.code != ZX_OK) return tensor;
    const auto size = number_at<std::uint64_t>(file, at + kSizeInDescriptor);
    if (size > tensor.tensor.bytes)
        return {{ZX_ERR_FILE_READ, kSerialize, "Failed to read tensor data"}, {}};
    Position position(file, descriptor_at(1));
    position.seek(number_at<std::uint64_t>(file, at + kOffsetInDescriptor));
    tensor.tensor.data = position.read(size);
    return tensor;
}

void ExpectedTensor::require_is(const zx_tensor_t& tensor) const {
    require(tensor.size * sizeof(float) == bytes, "a tensor has the stated number of elements");
    const std::string_view all(reinterpret_cast<const char*>(tensor.data), bytes);
    require(all.starts_with(data), "a tensor has the numbers of the file");
    require(!zero_behind || all.find_first_not_of('\0', data.size()) == std::string_view::npos,
            "what the file does not give is zero");
}

void require_is(const ExpectedModel& expected, const zx_model_t& model) {
    require(model.type == ZX_MODEL_MF && model.refcount == 1 &&
                model.num_users == expected.num_users && model.num_items == expected.num_items &&
                model.embedding_dim == expected.d && model.use_bias == expected.use_bias &&
                model.global_bias == 0.0F,
            "a model has the shape that its file describes");
    const zx_tensor_t* const tensors[4] = {model.user_embeddings, model.item_embeddings,
                                           model.user_biases, model.item_biases};
    for (std::size_t i = 0; i < 4; ++i) {
        const bool is_there = expected.tensors[i].bytes != 0;
        require((tensors[i] != nullptr) == is_there, "a model has biases if its file has");
        if (is_there) expected.tensors[i].require_is(*tensors[i]);
    }
}

void require_record(const Refusal& expected) {
    const zx_error_context_t* const record = zx_get_error_context();
    require(record->code == expected.code, "the code on record is the stated one");
    require(std::string_view(record->message) == expected.message,
            "the message on record is the stated one");
    require((record->file == nullptr) == (expected.file == nullptr) &&
                (!record->file || std::string_view(record->file) == expected.file),
            "the module on record is the stated one");
}

}  // namespace zx::fuzz
