#include "tool_mutators.hpp"

#include "bytes.hpp"
#include "mutators.hpp"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>
#include <zlib.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace zx::fuzz {

namespace {

using std::string_view_literals::operator""sv;

constexpr std::string_view kRowWords[] = {",",
                                          "\t",
                                          "::",
                                          " ",
                                          "\n",
                                          "\r\n",
                                          "\"",
                                          "\"\"",
                                          "\0"sv,
                                          "1",
                                          "0",
                                          "-1",
                                          "3.5",
                                          "1e-3",
                                          "1e39",
                                          "nan",
                                          "inf",
                                          "0x10",
                                          "978300760",
                                          "1234567890",
                                          "65535",
                                          "65536",
                                          "007",
                                          "user",
                                          "userId",
                                          "itemId",
                                          "rating",
                                          "timestamp",
                                          "user,item",
                                          "\xEF\xBB\xBF",
                                          "%",
                                          "anna",
                                          "\xC3\xA9",
                                          "\xFF",
                                          "4294967296",
                                          "9223372036854775808",
                                          "%%MatrixMarket",
                                          "\n\n",
                                          ".5",
                                          "5."};

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size() - 1);
        lines.emplace_back(text.substr(0, end + 1));
        text.remove_prefix(end + 1);
    }
    return lines;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line;
    return text;
}

std::string change_lines(std::string_view text, Random& random) {
    std::vector<std::string> lines = lines_of(text);
    if (lines.empty()) return std::string(any_of(kRowWords, random));
    const auto chosen = lines.begin() + static_cast<std::ptrdiff_t>(below(random, lines.size()));
    const std::string other = lines[below(random, lines.size())];
    switch (below(random, 4)) {
        case 0:
            lines.insert(chosen, other);
            break;
        case 1:
            lines.erase(chosen);
            break;
        default:
            *chosen = change_text(std::move(*chosen), kRowWords, random);
    }
    return joined(lines);
}

// Says how many entries follow.
std::string with_right_size(std::string_view text) {
    std::vector<std::string> lines = lines_of(text);
    const auto is_content = [](const std::string& line) { return !line.starts_with('%'); };
    const auto size_line = std::find_if(lines.begin(), lines.end(), is_content);
    if (size_line == lines.end()) return joined(lines);
    const auto entries = std::count_if(size_line + 1, lines.end(), [&](const std::string& line) {
        return is_content(line) && line.find_first_not_of(" \t\r\n") != std::string::npos;
    });
    *size_line = "9 9 " + std::to_string(entries) + "\n";
    return joined(lines);
}

std::string decompressed(std::string_view bytes) {
    constexpr std::size_t kMaxBytes = 1U << 14U;
    std::string text(kMaxBytes, '\0');
    std::string input(bytes);
    z_stream stream = {};
    constexpr int kGzip = 15 + 16;
    if (inflateInit2(&stream, kGzip) != Z_OK) return {};
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    (void)inflate(&stream, Z_FINISH);
    text.resize(stream.total_out);
    (void)inflateEnd(&stream);
    return text;
}

constexpr std::size_t kHashBytes = 8;

void hash_again(std::string& ids) {
    if (ids.size() < kHashBytes) return;
    const std::size_t hashed = ids.size() - kHashBytes;
    put(ids, hashed, std::uint64_t{XXH3_64bits(ids.data(), hashed)});
}

// The fields of an ids file that say to which model it belongs.
void belong_to(const std::string& model, std::string& ids) {
    put(ids, 24, std::uint64_t{model.size()});
    put(ids, 32, std::uint64_t{XXH3_64bits(model.data(), model.size())});
}

constexpr std::string_view kNpyWords[] = {"'descr'",
                                          "'<f4'",
                                          "'>f8'",
                                          "'|b1'",
                                          "'<c16'",
                                          "'|O'",
                                          "'fortran_order'",
                                          "True",
                                          "False",
                                          "'shape'",
                                          "(",
                                          ")",
                                          "(3,)",
                                          "()",
                                          "(0, 4)",
                                          "18446744073709551615",
                                          "18446744073709551616",
                                          ",",
                                          ": ",
                                          "{",
                                          "}",
                                          "\"",
                                          "'",
                                          "\n",
                                          " ",
                                          "-1"};

std::string npy(std::uint8_t version, const std::string& dictionary, const std::string& data) {
    std::string file = "\x93NUMPY";
    file += static_cast<char>(version);
    file += '\0';
    file += version == 1 ? bytes_of(static_cast<std::uint16_t>(dictionary.size()))
                         : bytes_of(static_cast<std::uint32_t>(dictionary.size()));
    return file + dictionary + data;
}

std::string new_npy(Random& random) {
    static constexpr std::string_view kTypes[] = {"<f4", "<f8", "|b1", ">i2", "<c8"};
    static constexpr std::size_t kBytes[] = {4, 8, 1, 2, 8};
    const std::size_t type = below(random, std::size(kTypes));
    std::size_t bytes = kBytes[type];
    std::string shape;
    for (std::size_t axis = below(random, 4); axis > 0; --axis) {
        const std::size_t extent = below(random, 5);
        bytes *= extent;
        shape += std::to_string(extent) + ", ";
    }
    return npy(static_cast<std::uint8_t>(1 + below(random, 3)),
               "{'descr': '" + std::string(kTypes[type]) + "', 'fortran_order': " +
                   (below(random, 2) == 0 ? "True" : "False") + ", 'shape': (" + shape + "), }\n",
               std::string(bytes, '\x3e'));
}

constexpr std::string_view kJsonWords[] = {"{",
                                           "}",
                                           "[",
                                           "]",
                                           ":",
                                           ",",
                                           "\"",
                                           "\"dtype\"",
                                           "\"F32\"",
                                           "\"BF16\"",
                                           "\"shape\"",
                                           "\"data_offsets\"",
                                           "\"__metadata__\"",
                                           "\"tensors\"",
                                           "null",
                                           "true",
                                           "-1",
                                           "1e3",
                                           "0",
                                           "18446744073709551615",
                                           "18446744073709551616",
                                           "\\u0000",
                                           "\\ud800",
                                           "[[[[[[[[",
                                           "{\"a\":",
                                           "\"a\"",
                                           "\"\"",
                                           "[0,0]",
                                           "4611686018427387904",
                                           "\xFF",
                                           "//",
                                           " "};

constexpr std::size_t kLengthBytes = 8;

std::string safetensors(const std::string& header, const std::string& data) {
    return bytes_of(std::uint64_t{header.size()}) + header + data;
}

std::string new_safetensors(Random& random) {
    static constexpr std::string_view kTypes[] = {"F32", "F64", "BOOL", "I16"};
    static constexpr std::size_t kBytes[] = {4, 8, 1, 2};
    std::string header = "{";
    std::size_t end = 0;
    const std::size_t count = below(random, 4);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t type = below(random, std::size(kTypes));
        const std::size_t rows = below(random, 4);
        const std::size_t columns = below(random, 4);
        const std::size_t begin = std::exchange(end, end + rows * columns * kBytes[type]);
        header += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":{\"dtype\":\"" +
                  std::string(kTypes[type]) + "\",\"shape\":[" + std::to_string(rows) + "," +
                  std::to_string(columns) + "],\"data_offsets\":[" + std::to_string(begin) + "," +
                  std::to_string(end) + "]}";
    }
    return safetensors(header + "}", std::string(end, '\x3e'));
}

}  // namespace

std::string compressed(std::string_view text) {
    std::string input(text);
    std::string bytes(input.size() + 256, '\0');
    z_stream stream = {};
    constexpr int kGzip = 15 + 16;
    if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, kGzip, 1, Z_DEFAULT_STRATEGY) != Z_OK)
        return {};
    stream.next_in = reinterpret_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = reinterpret_cast<Bytef*>(bytes.data());
    stream.avail_out = static_cast<uInt>(bytes.size());
    (void)deflate(&stream, Z_FINISH);
    bytes.resize(stream.total_out);
    (void)deflateEnd(&stream);
    return bytes;
}

std::string mutate_rows(std::string bytes, Random& random) {
    if (bytes.empty()) return bytes_of(static_cast<std::uint8_t>(below(random, 3)));
    if (below(random, 16) == 0) bytes[0] = static_cast<char>(below(random, 3));
    return bytes.substr(0, 1) + change_lines(std::string_view(bytes).substr(1), random);
}

std::string mutate_matrix(std::string bytes, Random& random) {
    std::string changed = mutate_rows(std::move(bytes), random);
    if (below(random, 3) == 0) return changed;
    return changed.substr(0, 1) + with_right_size(std::string_view(changed).substr(1));
}

std::string mutate_gzip(std::string bytes, Random& random) {
    if (bytes.empty() || below(random, 4) == 0) return scramble(std::move(bytes));
    const std::string text = decompressed(std::string_view(bytes).substr(1));
    const std::string changed = mutate_rows(bytes.substr(0, 1) + text, random);
    return changed.substr(0, 1) + compressed(std::string_view(changed).substr(1));
}

std::string mutate_ids(std::string bytes, Random& random) {
    constexpr std::size_t kHeadBytes = 40;
    if (bytes.size() < kHeadBytes + kHashBytes) return scramble(std::move(bytes));
    const std::size_t end = bytes.size() - kHashBytes;
    const std::size_t at = kHeadBytes + below(random, end - kHeadBytes + 1);
    const auto length = static_cast<std::uint32_t>(below(random, 4));
    switch (below(random, 6)) {
        case 0:
            put(bytes, 12, static_cast<std::uint32_t>(below(random, 6)));
            break;
        case 1:
            put(bytes, 16, static_cast<std::uint32_t>(below(random, 6)));
            break;
        case 2:
            put(bytes, 8 + 4 * below(random, 8), static_cast<std::uint32_t>(odd_number(random)));
            break;
        case 3:
            bytes.insert(at,
                         bytes_of(length) + std::string(length, static_cast<char>('a' + at % 26)));
            break;
        case 4:
            bytes.erase(at, std::min<std::size_t>(below(random, 9), end - at));
            break;
        default:
            bytes = scramble(std::move(bytes));
    }
    if (below(random, 8) != 0) hash_again(bytes);
    return bytes;
}

std::string mutate_npy(std::string bytes, Random& random) {
    constexpr std::size_t kVersionAt = 6;
    if (bytes.size() < 12 || below(random, 16) == 0) return new_npy(random);
    if (below(random, 16) == 0) return scramble(std::move(bytes));
    const auto version = static_cast<std::uint8_t>(bytes[kVersionAt]);
    const std::size_t at = version == 1 ? 10 : 12;
    const std::size_t length =
        version == 1 ? number_at<std::uint16_t>(bytes, 8) : number_at<std::uint32_t>(bytes, 8);
    std::string dictionary = bytes.substr(at, length);
    std::string data = bytes.substr(std::min(bytes.size(), at + dictionary.size()));
    if (below(random, 4) == 0)
        data = scramble(std::move(data));
    else
        dictionary = change_text(std::move(dictionary), kNpyWords, random);
    const bool keeps_version = below(random, 8) != 0;
    return npy(keeps_version ? version : static_cast<std::uint8_t>(below(random, 5)), dictionary,
               data);
}

std::string mutate_safetensors(std::string bytes, Random& random) {
    if (bytes.size() < kLengthBytes || below(random, 16) == 0) return new_safetensors(random);
    if (below(random, 16) == 0) return scramble(std::move(bytes));
    const std::size_t length = number_at<std::uint64_t>(bytes, 0);
    std::string header = bytes.substr(kLengthBytes, length);
    std::string data = bytes.substr(std::min(bytes.size(), kLengthBytes + header.size()));
    if (below(random, 6) == 0)
        data = scramble(std::move(data));
    else
        header = mutate_json(std::move(header), random);
    return safetensors(header, data);
}

std::string mutate_json(std::string text, Random& random) {
    return change_text(std::move(text), kJsonWords, random);
}

Pair split_pair(std::string_view bytes) {
    const std::size_t length = number_at<std::uint32_t>(bytes, 0);
    const std::string_view both = bytes.substr(std::min<std::size_t>(bytes.size(), 4));
    const std::string_view model = both.substr(0, length);
    return {std::string(model), std::string(both.substr(model.size()))};
}

std::string join_pair(const Pair& pair) {
    return bytes_of(static_cast<std::uint32_t>(pair.model.size())) + pair.model + pair.ids;
}

std::string mutate_pair(std::string bytes, Random& random) {
    Pair pair = split_pair(bytes);
    if (below(random, 2) == 0)
        pair.model = mutate_container(std::move(pair.model), random);
    else
        pair.ids = mutate_ids(std::move(pair.ids), random);
    if (below(random, 8) != 0) {
        belong_to(pair.model, pair.ids);
        hash_again(pair.ids);
    }
    return join_pair(pair);
}

}  // namespace zx::fuzz
