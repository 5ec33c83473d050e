#include "npy_file.hpp"

#include "error.hpp"
#include "quote.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <fmt/format.h>
#include <iterator>
#include <string_view>
#include <utility>

namespace zxtool {

namespace {

using std::string_view_literals::operator""sv;

constexpr std::string_view kMagic = "\x93NUMPY"sv;
// Version 1 says the length of its dictionary in two bytes, the later ones in four.
constexpr std::size_t kVersionAt = 6;
constexpr std::size_t kLengthAt = 8;
constexpr std::uint64_t kMaxDictionaryBytes = 1U << 16U;
constexpr std::size_t kMaxAxes = 64;  // of NumPy itself

[[noreturn]] void refuse(const RegularFile& file, const std::string& what) {
    throw Error(Exit::kBadInput, fmt::format("{}: {}", file.path(), what));
}

// The one dictionary that such a file holds, written as Python writes it:
// {'descr': '<f4', 'fortran_order': False, 'shape': (3, 4), }
class Dictionary {
  public:
    Dictionary(const RegularFile& file, std::string_view text) : file_(file), rest_(text) {
        expect("{");
        while (!take("}")) {
            read_entry();
            if (take(",")) continue;
            expect("}");
            break;
        }
        if (!has_descr_ || !has_order_ || !has_shape_)
            refuse_text("descr, fortran_order or shape is missing");
        skip_spaces();
        if (!rest_.empty()) refuse_text("something stands behind the dictionary");
    }

    [[nodiscard]] const std::string& descr() const { return descr_; }
    [[nodiscard]] const std::vector<std::uint64_t>& shape() const { return shape_; }

  private:
    [[noreturn]] void refuse_text(const std::string& what) const {
        refuse(file_, "npy header cannot be read: " + what);
    }
    void skip_spaces() {
        rest_.remove_prefix(std::min(rest_.size(), rest_.find_first_not_of(" \n")));
    }
    bool take(std::string_view token) {
        skip_spaces();
        if (!rest_.starts_with(token)) return false;
        rest_.remove_prefix(token.size());
        return true;
    }
    void expect(std::string_view token) {
        if (!take(token))
            refuse_text(
                fmt::format("{} stands where {} is expected", quote(rest_.substr(0, 8)), token));
    }
    std::string_view text() {
        const std::string_view mark = take("\"") ? "\"" : "'";
        if (mark == "'") expect(mark);
        const std::size_t end = rest_.find(mark);
        if (end == std::string_view::npos) refuse_text("a string does not end");
        const std::string_view value = rest_.substr(0, end);
        rest_.remove_prefix(end + mark.size());
        return value;
    }
    void read_entry() {
        const std::string_view key = text();
        expect(":");
        if (key == "descr" && !std::exchange(has_descr_, true))
            descr_ = text();
        else if (key == "fortran_order" && !std::exchange(has_order_, true))
            take("True") ? void() : expect("False");
        else if (key == "shape" && !std::exchange(has_shape_, true))
            read_shape();
        else
            refuse_text(fmt::format("the key {} is not expected here", quote(key)));
    }
    void read_shape() {
        expect("(");
        while (!take(")")) {
            shape_.push_back(number());
            if (shape_.size() > kMaxAxes) refuse_text("the shape has too many axes");
            if (take(",")) continue;
            expect(")");
            break;
        }
    }
    std::uint64_t number() {
        skip_spaces();
        std::uint64_t value = 0;
        const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
        if (error != std::errc()) refuse_text("an extent is no number of 64 bits");
        rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
        return value;
    }

    const RegularFile& file_;
    std::string_view rest_;
    bool has_descr_ = false;
    bool has_order_ = false;
    bool has_shape_ = false;
    std::string descr_;
    std::vector<std::uint64_t> shape_;
};

// The kinds of elements and their widths, as NumPy has them on any machine.
struct Kind {
    char letter;
    std::array<std::uint64_t, 4> widths;  // ends where a width is 0
};
constexpr Kind kKinds[] = {
    {'b', {1}}, {'i', {1, 2, 4, 8}}, {'u', {1, 2, 4, 8}}, {'f', {2, 4, 8, 16}}, {'c', {8, 16, 32}}};

bool is_kind(char letter, std::uint64_t width) {
    return std::any_of(std::begin(kKinds), std::end(kKinds), [=](const Kind& kind) {
        return kind.letter == letter &&
               std::find(kind.widths.begin(), kind.widths.end(), width) != kind.widths.end();
    });
}

// The bytes of an element: '<f4' has 4. Kinds other than numbers and truth values are refused.
std::uint64_t element_bytes_of(const RegularFile& file, std::string_view descr) {
    std::uint64_t bytes = 0;
    if (descr.size() > 2 && "<>|"sv.find(descr[0]) != std::string_view::npos) {
        const auto [end, error] =
            std::from_chars(descr.data() + 2, descr.data() + descr.size(), bytes);
        if (error != std::errc() || end != descr.data() + descr.size()) bytes = 0;
    }
    if (bytes == 0 || !is_kind(descr[1], bytes))
        refuse(file, fmt::format("elements of the type {} are no numbers", quote(descr)));
    return bytes;
}

}  // namespace

StoredTensor read_npy(const RegularFile& file) {
    const std::string head = file.start(kLengthAt + 4);
    if (!head.starts_with(kMagic) || head.size() < kLengthAt + 4) refuse(file, "is no npy file");
    const auto byte = [&head](std::size_t at) {
        return std::uint64_t{static_cast<unsigned char>(head[at])};
    };
    const std::uint64_t version = byte(kVersionAt);
    if (version < 1 || version > 3)
        refuse(file, fmt::format("npy version {} is not known", version));
    const std::size_t width = version == 1 ? 2 : 4;
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < width; ++i) length |= byte(kLengthAt + i) << (8 * i);
    const std::uint64_t data_at = kLengthAt + width + length;
    if (length > kMaxDictionaryBytes || data_at > file.size())
        refuse(file, fmt::format("npy header is {} bytes long, expected at most {}, and those in "
                                 "the file",
                                 length, kMaxDictionaryBytes));

    const std::string text = file.start(data_at).substr(kLengthAt + width);
    const Dictionary dictionary(file, text);
    StoredTensor tensor{
        .name = {},
        .dtype = dictionary.descr(),
        .is_float32 = dictionary.descr() == "<f4",
        .shape = dictionary.shape(),
        .offset = data_at,
        .bytes = file.size() - data_at,
    };
    const auto expected = bytes_of(tensor.shape, element_bytes_of(file, tensor.dtype));
    if (expected != tensor.bytes)
        refuse(file, fmt::format("holds {} bytes of data, which are not {} elements of {}",
                                 tensor.bytes, shape_text(tensor.shape), tensor.dtype));
    return tensor;
}

}  // namespace zxtool
