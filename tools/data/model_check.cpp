#include "model_check.hpp"

#include "container.hpp"
#include "quote.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <iterator>
#include <span>

namespace zxtool {

namespace {

constexpr std::string_view kNames[] = {"mf.user_embeddings", "mf.item_embeddings", "mf.user_biases",
                                       "mf.item_biases"};
constexpr std::uint32_t kNumTables = 2;  // without biases
constexpr std::uint32_t kMaxTensors = std::size(kNames);

constexpr std::string_view kModelName = "MatrixFactorization";

// Each step looks at bytes behind those of the step before.
class Check {
  public:
    Check(const RegularFile& file, const std::function<void()>& on_block)
        : file_(file), on_block_(on_block) {}

    void run() {
        check_header();
        std::uint64_t end = padded(descriptor_at(header_.num_tensors));
        for (std::uint32_t i = 0; i < header_.num_tensors; ++i) {
            check_descriptor(i, end);
            end += padded(descriptors_[i].size);
        }
        expect_zeros(descriptor_at(header_.num_tensors), header_.data_offset,
                     "between the descriptors and the data");
        for (std::uint32_t i = 0; i < header_.num_tensors; ++i) check_data(i);
        if (file_.size() > end)
            refuse_at(file_, end,
                      fmt::format("{} bytes behind the last tensor", file_.size() - end));
    }

  private:
    // Reads a part of the head as far as the file goes: the fault of a file that ends within comes
    // behind those before its end.
    void read_head(std::uint64_t at, void* out, std::size_t bytes) {
        const std::uint64_t there = file_.size() > at ? file_.size() - at : 0;
        file_.read(at, out, std::min<std::uint64_t>(there, bytes));
    }
    void expect_to_reach(std::uint64_t end) const {
        if (file_.size() < end) refuse_at(file_, file_.size(), "the file ends in its head");
    }
    void expect_number(std::uint64_t at, std::size_t width, std::string_view what,
                       std::uint64_t value, std::uint64_t expected) const {
        expect_to_reach(at + width);
        if (value != expected)
            refuse_at(file_, at, fmt::format("{} is {}, expected {}", what, value, expected));
    }
    // A text field, which is filled up with zeros; at least one ends it.
    std::string_view expect_text(std::uint64_t at, std::span<const char> field,
                                 std::string_view what) const {
        const std::string_view text(field.data(), strnlen(field.data(), field.size()));
        if (text.size() < field.size()) expect_zeros(at + text.size(), at + field.size(), what);
        expect_to_reach(at + field.size());
        if (text.size() == field.size())
            refuse_at(file_, at + field.size() - 1, fmt::format("no 0 {}", what));
        return text;
    }
    // Stops at the end of the file.
    void expect_zeros(std::uint64_t begin, std::uint64_t end, std::string_view where) const {
        end = std::min(end, file_.size());
        if (begin >= end) return;
        file_.for_each_block(begin, end, [&](std::uint64_t offset, std::string_view bytes) {
            const std::size_t at = bytes.find_first_not_of('\0');
            if (at != std::string_view::npos)
                refuse_at(file_, offset + at,
                          fmt::format("the byte {} is {}, expected 0", where,
                                      static_cast<unsigned char>(bytes[at])));
        });
    }

    void check_header() {
        read_head(0, &header_, sizeof(header_));
        const std::string_view magic(header_.magic, sizeof(header_.magic));
        // What is there of a cut one must be its beginning.
        const std::size_t there = std::min<std::uint64_t>(file_.size(), magic.size());
        if (magic.substr(0, there) != kContainerMagic.substr(0, there))
            refuse_at(file_, 0, "is no model file");
        expect_number(offsetof(ContainerHeader, version), 4, "the version", header_.version,
                      kContainerVersion);
        expect_number(offsetof(ContainerHeader, model_type), 4, "the model type",
                      header_.model_type, kFactorisation);
        const std::uint64_t count_at = offsetof(ContainerHeader, num_tensors);
        if (file_.size() >= count_at + 4 && header_.num_tensors != kNumTables &&
            header_.num_tensors != kMaxTensors)
            refuse_at(file_, count_at,
                      fmt::format("the number of tensors is {}, expected {} or, with biases, {}",
                                  header_.num_tensors, kNumTables, kMaxTensors));
        expect_number(offsetof(ContainerHeader, data_offset), 8, "the offset of the data",
                      header_.data_offset, padded(descriptor_at(header_.num_tensors)));
        expect_number(offsetof(ContainerHeader, file_size), 8, "the size of the file",
                      header_.file_size, file_.size());
        const std::uint64_t name_at = offsetof(ContainerHeader, model_name);
        const std::string_view name =
            expect_text(name_at, header_.model_name, "behind the name of the model");
        if (name != kModelName)
            refuse_at(file_, name_at,
                      fmt::format("the model is named {}, expected {}", quote(name), kModelName));
        expect_zeros(offsetof(ContainerHeader, reserved), sizeof(header_), "in the header");
        expect_to_reach(sizeof(header_));
    }

    void check_descriptor(std::uint32_t i, std::uint64_t data_at) {
        ContainerDescriptor& descriptor = descriptors_[i];
        const std::uint64_t at = descriptor_at(i);
        read_head(at, &descriptor, sizeof(descriptor));
        const std::string_view name = expect_text(at, descriptor.name, "behind a tensor's name");
        if (name != kNames[i])
            refuse_at(file_, at,
                      fmt::format("a tensor is named {}, expected {}", quote(name), kNames[i]));
        check_shape(i, at);
        expect_zeros(at + offsetof(ContainerDescriptor, padding),
                     at + offsetof(ContainerDescriptor, offset), "in a descriptor");
        expect_number(at + offsetof(ContainerDescriptor, offset), 8,
                      fmt::format("the offset of {}", kNames[i]), descriptor.offset, data_at);
        check_size(i, at + offsetof(ContainerDescriptor, size));
        expect_zeros(at + offsetof(ContainerDescriptor, reserved), at + sizeof(descriptor),
                     "in a descriptor");
        expect_to_reach(at + sizeof(descriptor));
    }

    void check_shape(std::uint32_t i, std::uint64_t at) const {
        const ContainerDescriptor& descriptor = descriptors_[i];
        const std::uint32_t ndim = i < kNumTables ? 2 : 1;
        expect_number(at + offsetof(ContainerDescriptor, ndim), 4, "the number of axes",
                      descriptor.ndim, ndim);
        const std::uint64_t dims_at = at + offsetof(ContainerDescriptor, dims);
        for (std::uint32_t axis = 0; axis < std::size(descriptor.dims); ++axis) {
            const std::uint64_t extent_at = dims_at + sizeof(std::uint32_t) * axis;
            const std::uint32_t extent = descriptor.dims[axis];
            expect_to_reach(extent_at + sizeof(std::uint32_t));
            // The library writes extents as a tensor's record has them: behind the last axis, all
            // are 1, or all 0 for a tensor that borrows its numbers.
            const std::uint32_t expected = descriptor.dims[ndim] == 0 ? 0 : 1;
            if (axis >= ndim && extent != expected)
                refuse_at(file_, extent_at,
                          fmt::format("an extent behind the last axis is {}, expected {}", extent,
                                      expected));
            if (axis < ndim && extent == 0) refuse_at(file_, extent_at, "an extent is 0");
        }
        if (i == 1)
            expect_number(dims_at + 4, 4, "the dimension of the items", descriptor.dims[1],
                          descriptors_[0].dims[1]);
        if (i >= kNumTables)
            expect_number(dims_at, 4, fmt::format("the extent of {}", kNames[i]),
                          descriptor.dims[0], descriptors_[i - kNumTables].dims[0]);
    }

    void check_size(std::uint32_t i, std::uint64_t at) const {
        const ContainerDescriptor& descriptor = descriptors_[i];
        const auto expected =
            bytes_of({descriptor.dims, descriptor.dims + descriptor.ndim}, sizeof(float));
        if (!expected) refuse_at(file_, at, fmt::format("{} is too large for any file", kNames[i]));
        expect_number(at, 8, fmt::format("the size of {}", kNames[i]), descriptor.size, *expected);
        if (descriptor.offset > file_.size() || *expected > file_.size() - descriptor.offset)
            refuse_at(file_, at,
                      fmt::format("the data of {} ends behind the end of the file", kNames[i]));
    }

    void check_data(std::uint32_t i) const {
        const ContainerDescriptor& descriptor = descriptors_[i];
        const std::uint64_t end = descriptor.offset + descriptor.size;
        file_.for_each_block(descriptor.offset, end,
                             [&](std::uint64_t offset, std::string_view bytes) {
                                 expect_finite(i, offset, bytes);
                                 if (on_block_) on_block_();
                             });
        const std::uint64_t padding_end = descriptor.offset + padded(descriptor.size);
        expect_zeros(end, padding_end, fmt::format("behind {}", kNames[i]));
        if (file_.size() < padding_end)
            refuse_at(file_, file_.size(),
                      fmt::format("the file ends in the padding behind {}", kNames[i]));
    }

    void expect_finite(std::uint32_t i, std::uint64_t offset, std::string_view bytes) const {
        for (std::size_t at = 0; at < bytes.size(); at += sizeof(float)) {
            float number = 0.0F;
            std::memcpy(&number, bytes.data() + at, sizeof(number));
            if (!std::isfinite(number))
                refuse_at(file_, offset + at,
                          fmt::format("a number of {} is {}", kNames[i], number));
        }
    }

    const RegularFile& file_;
    const std::function<void()>& on_block_;
    ContainerHeader header_{};
    ContainerDescriptor descriptors_[kMaxTensors]{};
};

}  // namespace

void check_tensors(const RegularFile& file) {
    const std::vector<StoredTensor> tensors = read_container(file).tensors;
    const StoredTensor* found[kMaxTensors]{};
    for (std::size_t i = 0; i < tensors.size(); ++i) {
        const auto* const name = std::find(std::begin(kNames), std::end(kNames), tensors[i].name);
        if (name == std::end(kNames))
            refuse_at(file, descriptor_at(i),
                      fmt::format("a model has no tensor {}", quote(tensors[i].name)));
        const StoredTensor*& place = found[name - std::begin(kNames)];
        if (place != nullptr) refuse_at(file, descriptor_at(i), fmt::format("a second {}", *name));
        place = &tensors[i];
    }

    const bool use_bias = found[kNumTables] != nullptr || found[kNumTables + 1] != nullptr;
    for (std::uint32_t i = 0; i < (use_bias ? kMaxTensors : kNumTables); ++i)
        if (found[i] == nullptr)
            refuse_at(file, offsetof(ContainerHeader, num_tensors),
                      fmt::format("there is no {}", kNames[i]));
    const auto expect_shape = [&](std::uint32_t i, const std::vector<std::uint64_t>& shape) {
        if (found[i]->shape != shape)
            refuse_at(file,
                      descriptor_at(static_cast<std::uint64_t>(found[i] - tensors.data())) +
                          offsetof(ContainerDescriptor, ndim),
                      fmt::format("{} is {}, expected {}", kNames[i], shape_text(found[i]->shape),
                                  shape_text(shape)));
    };
    const std::uint64_t columns = found[0]->shape.back();
    for (std::uint32_t i = 0; i < kNumTables; ++i) {
        const std::uint64_t rows = found[i]->shape.front();
        expect_shape(i, {rows, columns});
        if (use_bias) expect_shape(kNumTables + i, {rows});
    }
}

void check_every_byte(const RegularFile& file, const std::function<void()>& on_block) {
    Check(file, on_block).run();
}

}  // namespace zxtool
