#include "library_files.hpp"

#include "error.hpp"
#include "library.hpp"
#include "output.hpp"
#include "regular_file.hpp"

#include <cstdint>
#include <cstring>
#include <fmt/format.h>

namespace zxtool {
namespace {

constexpr std::uint64_t kNpyTextLengthAt = 8;
constexpr std::uint64_t kNpyTextAt = 10;

// Throws for a failed export. What it was given is in order, so all it can lack is memory or a
// file.
void expect_written(zx_status_t status, const std::string& target) {
    if (status == ZX_OK) return;
    throw Error(status == ZX_ERR_OUT_OF_MEMORY ? Exit::kOutOfMemory : Exit::kInputOutput,
                failure_text(status, target + ": cannot be written"));
}

std::uint64_t data_bytes(const zx_tensor_t& tensor) {
    return zx_tensor_size(&tensor) * sizeof(float);
}

// A number that a file says at an offset; 0 if it ends before.
template <typename Number>
Number number_at(const AtomicFile& file, std::uint64_t offset) {
    const std::string start = RegularFile(file.temporary_path()).start(offset + sizeof(Number));
    Number number = 0;
    if (start.size() == offset + sizeof(Number))
        std::memcpy(&number, start.data() + offset, sizeof(number));
    return number;
}

// A file of a header's length, the header, and data.
void settle_safetensors(AtomicFile& file, std::uint64_t data_bytes_expected) {
    const auto header_bytes = number_at<std::uint64_t>(file, 0);
    file.settle(sizeof(header_bytes) + header_bytes + data_bytes_expected);
}

// The library's JSON is an object over several lines; a brace that begins one is its end.
void settle_json(AtomicFile& file, const std::string& target) {
    const RegularFile written(file.temporary_path());
    if (!written.start(written.size()).ends_with("\n}\n"))
        throw Error(Exit::kInputOutput, fmt::format("{}: {} bytes were written, expected more",
                                                    target, written.size()));
    file.settle(written.size());
}

}  // namespace

void write_npy(const zx_tensor_t& tensor, AtomicFile& file, const std::string& target) {
    expect_written(zx_tensor_to_npy(&tensor, file.temporary_path().c_str()), target);
    const auto text_bytes = number_at<std::uint16_t>(file, kNpyTextLengthAt);
    file.settle(kNpyTextAt + text_bytes + data_bytes(tensor));
}

void write_raw(const zx_tensor_t& tensor, AtomicFile& file, const std::string& target) {
    expect_written(zx_tensor_to_raw(&tensor, file.temporary_path().c_str()), target);
    file.settle(data_bytes(tensor));
}

void write_safetensors(const zx_model_t& model, AtomicFile& file, const std::string& target) {
    expect_written(zx_model_to_safetensors(&model, file.temporary_path().c_str()), target);
    settle_safetensors(file, zx_model_num_parameters(&model) * sizeof(float));
}

void write_safetensors(zx_tensor_t& tensor, const std::string& name, AtomicFile& file,
                       const std::string& target) {
    // The library does not escape names; within its quotes, the text of a JSON string is one.
    const std::string quoted = json_text(name);
    const std::string escaped = quoted.substr(1, quoted.size() - 2);
    zx_tensor_t* const tensors[] = {&tensor};
    const char* const names[] = {escaped.c_str()};
    expect_written(zx_tensors_to_safetensors(tensors, names, 1, file.temporary_path().c_str()),
                   target);
    settle_safetensors(file, data_bytes(tensor));
}

void write_metadata(const zx_model_t& model, AtomicFile& file, const std::string& target) {
    expect_written(zx_model_metadata_json(&model, file.temporary_path().c_str()), target);
    settle_json(file, target);
}

void write_schema(const zx_model_t& model, AtomicFile& file, const std::string& target) {
    expect_written(zx_model_to_json_schema(&model, file.temporary_path().c_str()), target);
    settle_json(file, target);
}

}  // namespace zxtool
