#include "container.hpp"

#include "error.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <utility>

namespace zxtool {

namespace {

constexpr std::uint32_t kMaxAxes = 4;

StoredTensor tensor_of(const RegularFile& file, const ContainerDescriptor& descriptor,
                       std::uint64_t at) {
    const std::uint32_t ndim = descriptor.ndim;
    if (ndim < 1 || ndim > kMaxAxes)
        refuse_at(file, at + offsetof(ContainerDescriptor, ndim),
                  fmt::format("a tensor has {} axes, expected 1 to {}", ndim, kMaxAxes));
    StoredTensor tensor{
        .name = {descriptor.name, strnlen(descriptor.name, sizeof(descriptor.name))},
        .dtype = "float32",
        .is_float32 = true,
        .shape = {descriptor.dims, descriptor.dims + ndim},
        .offset = descriptor.offset,
        .bytes = descriptor.size,
    };
    const auto expected = bytes_of(tensor.shape, sizeof(float));
    if (!expected || *expected == 0 || *expected != tensor.bytes)
        refuse_at(
            file, at + offsetof(ContainerDescriptor, size),
            fmt::format("a tensor of {} has {} bytes", shape_text(tensor.shape), tensor.bytes));
    if (tensor.offset > file.size() || tensor.bytes > file.size() - tensor.offset)
        refuse_at(file, at + offsetof(ContainerDescriptor, offset),
                  fmt::format("{} bytes from {} on are not in the file, which has {}", tensor.bytes,
                              tensor.offset, file.size()));
    return tensor;
}

}  // namespace

void refuse_at(const RegularFile& file, std::uint64_t offset, const std::string& what) {
    throw Error(Exit::kBadModel, fmt::format("{}: offset {}: {}", file.path(), offset, what));
}

bool is_container(const RegularFile& file) {
    return file.start(kContainerMagic.size()) == kContainerMagic;
}

Container read_container(const RegularFile& file) {
    Container container;
    ContainerHeader& header = container.header;
    if (!is_container(file)) refuse_at(file, 0, "is no model or tensor file");
    if (file.size() < sizeof(header)) refuse_at(file, file.size(), "the file ends in its header");
    file.read(0, &header, sizeof(header));
    if (header.version > kContainerVersion)
        refuse_at(file, offsetof(ContainerHeader, version),
                  fmt::format("the version is {}, expected at most {}", header.version,
                              kContainerVersion));
    if (header.model_type != kFactorisation && header.model_type != kNoModel)
        refuse_at(file, offsetof(ContainerHeader, model_type),
                  fmt::format("the model type {} is not known", header.model_type));
    const std::uint64_t most = (file.size() - sizeof(header)) / sizeof(ContainerDescriptor);
    if (header.num_tensors < 1 || header.num_tensors > most)
        refuse_at(file, offsetof(ContainerHeader, num_tensors),
                  fmt::format("{} tensors are not in a file of {} bytes", header.num_tensors,
                              file.size()));
    std::uint64_t bytes_left = file.size();
    for (std::uint32_t i = 0; i < header.num_tensors; ++i) {
        ContainerDescriptor descriptor{};
        file.read(descriptor_at(i), &descriptor, sizeof(descriptor));
        StoredTensor tensor = tensor_of(file, descriptor, descriptor_at(i));
        if (tensor.bytes > bytes_left)
            refuse_at(file, descriptor_at(i) + offsetof(ContainerDescriptor, size),
                      "the tensors up to this one have more bytes than the file");
        bytes_left -= tensor.bytes;
        container.tensors.push_back(std::move(tensor));
    }
    return container;
}

}  // namespace zxtool
