#include "mutators.hpp"

#include "bytes.hpp"
#include "zx_serialize/model_file_bytes.hpp"

#include <algorithm>
#include <cstdint>
#include <utility>

// The fuzzer's own changes, in programs without one those of the replay.
// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace zx::fuzz {

namespace {

using namespace zx::test;  // where the fields stand
using std::string_view_literals::operator""sv;

constexpr std::string_view kTensorNames[] = {"mf.user_embeddings",
                                             "mf.item_embeddings",
                                             "mf.user_biases",
                                             "mf.item_biases",
                                             "user_embeddings",
                                             "xx.item_embeddings.yy",
                                             "biases",
                                             "user_embeddings item_embeddings biases",
                                             "mf.user_embedding",
                                             ""};

std::uint32_t odd_extent(Random& random) {
    const bool is_small = below(random, 4) != 0;
    return is_small ? static_cast<std::uint32_t>(below(random, 9))
                    : static_cast<std::uint32_t>(odd_number(random));
}

// How many descriptors the file has room for, of those that its header announces.
std::size_t descriptors_in(const std::string& file) {
    if (file.size() < kHeaderBytes) return 0;
    const std::size_t room = (file.size() - kHeaderBytes) / kDescriptorBytes;
    return std::min<std::size_t>(room, number_at<std::uint32_t>(file, kNumTensorsAt));
}

void change_header(std::string& file, Random& random) {
    constexpr std::size_t kNarrow[] = {kVersionAt, kModelTypeAt, kNumTensorsAt};
    constexpr std::size_t kWide[] = {16, 24};  // the offset of the data, the length of the file
    if (below(random, 3) != 0)
        put(file, any_of(kNarrow, random), odd_extent(random));
    else
        put(file, any_of(kWide, random), odd_number(random));
}

void rename(std::string& file, std::size_t descriptor, Random& random) {
    std::string name(any_of(kTensorNames, random));
    if (below(random, 8) == 0) name.insert(0, kNdimInDescriptor - name.size(), 'x');
    name.resize(kNdimInDescriptor, '\0');
    file.replace(descriptor, name.size(), name);
}

// A number near one that a file in order has.
std::uint64_t near(std::uint64_t number, Random& random) {
    constexpr int kSteps[] = {-64, -4, -1, 1, 4, 64};
    return below(random, 3) == 0 ? odd_number(random)
                                 : number + static_cast<std::uint64_t>(any_of(kSteps, random));
}

void change_descriptor(std::string& file, std::size_t descriptor, Random& random) {
    const std::size_t axis = below(random, 4);
    const std::size_t wide =
        descriptor + (below(random, 2) == 0 ? kOffsetInDescriptor : kSizeInDescriptor);
    switch (below(random, 5)) {
        case 0:
            return rename(file, descriptor, random);
        case 1:
            return put(file, descriptor + kNdimInDescriptor, odd_extent(random));
        case 2:
            return put(file, descriptor + kDimsInDescriptor + 4 * axis, odd_extent(random));
        default:
            return put(file, wide, near(number_at<std::uint64_t>(file, wide), random));
    }
}

// Puts a descriptor in or takes one out, most often with the number that the header says.
void change_table(std::string& file, std::size_t count, Random& random) {
    const std::size_t from = descriptor_at(below(random, count));
    const std::size_t to = descriptor_at(below(random, count));
    const std::string descriptor = file.substr(from, kDescriptorBytes);
    switch (below(random, 3)) {
        case 0:
            file.insert(to, descriptor);
            ++count;
            break;
        case 1:
            file.erase(from, kDescriptorBytes);
            --count;
            break;
        default:
            file.replace(from, kDescriptorBytes, file, to, kDescriptorBytes);
            file.replace(to, kDescriptorBytes, descriptor);
    }
    if (below(random, 8) != 0) put(file, kNumTensorsAt, static_cast<std::uint32_t>(count));
}

std::size_t padded(std::size_t bytes) {
    return (bytes + 63) / 64 * 64;
}

// Gives every tensor the size of its shape and its place, as long as the file stays small.
void put_in_order(std::string& file, std::size_t count) {
    constexpr std::uint64_t kMaxTensorBytes = 512;
    std::size_t end = padded(descriptor_at(count));
    put(file, kVersionAt, std::uint32_t{1});
    put(file, 16, std::uint64_t{end});
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t at = descriptor_at(i);
        std::uint64_t bytes = sizeof(float);
        for (std::size_t axis = 0; axis < 4; ++axis) {
            const auto extent = number_at<std::uint32_t>(file, at + kDimsInDescriptor + 4 * axis);
            bytes *= std::clamp(extent, 1U, 32U);
        }
        bytes = std::min(bytes, kMaxTensorBytes);
        put(file, at + kOffsetInDescriptor, std::uint64_t{end});
        put(file, at + kSizeInDescriptor, bytes);
        end += padded(bytes);
    }
    put(file, 24, std::uint64_t{end});
    file.resize(end, '\0');
}

void cut_or_extend(std::string& file, Random& random) {
    const std::size_t end = below(random, file.size() + 65);
    file.resize(below(random, 2) == 0 ? end : file.size() - below(random, 9) % (file.size() + 1));
}

}  // namespace

std::string scramble(std::string bytes) {
    constexpr std::size_t kGrowth = 64;
    const std::size_t size = bytes.size();
    bytes.resize(size + kGrowth);
    auto* const data = reinterpret_cast<std::uint8_t*>(bytes.data());
    bytes.resize(LLVMFuzzerMutate(data, size, bytes.size()));
    return bytes;
}

std::uint64_t odd_number(Random& random) {
    const std::uint64_t power = std::uint64_t{1} << below(random, 64);
    switch (below(random, 4)) {
        case 0:
            return below(random, 70);
        case 1:
            return power - 1;
        case 2:
            return ~power + 2;
        default:
            return power;
    }
}

std::string change_text(std::string text, std::span<const std::string_view> words, Random& random) {
    const std::size_t at = below(random, text.size() + 1);
    const std::size_t length = below(random, text.size() - at + 1) % 32;
    const std::string part = text.substr(at, length);
    const std::size_t other = below(random, text.size() + 1);
    switch (below(random, 6)) {
        case 0:
            return text.insert(at, any_of(words, random));
        case 1:
            return text.replace(at, length, any_of(words, random));
        case 2:
            return text.erase(at, length);
        case 3:
            return text.insert(other, part);
        default:
            return scramble(std::move(text));
    }
}

std::string mutate_container(std::string file, Random& random) {
    if (file.size() < 8 || below(random, 32) == 0) return scramble(std::move(file));
    const std::size_t count = descriptors_in(file);
    const std::size_t steps = 1 + below(random, 3);
    if (count == 0 || below(random, 8) == 0) {
        change_header(file, random);
        return file;
    }
    for (std::size_t step = 0; step < steps; ++step) {
        const std::size_t there = descriptors_in(file);
        if (there == 0) return file;
        const std::size_t chosen = descriptor_at(below(random, there));
        switch (below(random, 12)) {
            case 0:
                change_header(file, random);
                break;
            case 1:
                cut_or_extend(file, random);
                break;
            case 2:
            case 3:
                change_table(file, there, random);
                break;
            case 4:
                file = file.substr(0, descriptor_at(there)) +
                       scramble(file.substr(descriptor_at(there)));
                break;
            case 5:
            case 6:
                put_in_order(file, there);
                break;
            default:
                change_descriptor(file, chosen, random);
        }
    }
    return file;
}

std::string mutate_raw(std::string bytes, Random& random) {
    switch (below(random, 3)) {
        case 0:
            put(bytes, 0, static_cast<std::uint8_t>(below(random, 6)));
            return bytes;
        case 1:
            put(bytes, 1 + 4 * below(random, 4), odd_extent(random));
            return bytes;
        default:
            return scramble(std::move(bytes));
    }
}

std::string mutate_kernel(std::string text, Random& random) {
    static constexpr std::string_view kWords[] = {
        "#error",    "#refuse",       "\n",        "\0"sv,     "void relu(",
        "void ",     "dense_forward", "(",         "__kernel", "void reduce_max(",
        "void gelu", "void vec_add(", "tanh_act(", "\r\n",     "#error x\n"};
    return change_text(std::move(text), kWords, random);
}

std::string mutate_format(std::string bytes, Random& random) {
    static constexpr std::string_view kWords[] = {
        ".zxm", ".npy", ".safetensors", ".json", ".bin",      ".raw", ".", "\0"sv, "{",
        "ZXQM", ".NPY", "..",           "/",     "\x93NUMPY", ".gz",  "x", " "};
    return change_text(std::move(bytes), kWords, random);
}

}  // namespace zx::fuzz
