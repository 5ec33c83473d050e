#include "matrix_market.hpp"

#include "field_text.hpp"
#include "quote.hpp"
#include "split.hpp"

#include <charconv>
#include <cstdint>
#include <fmt/format.h>
#include <string>
#include <system_error>

namespace zxtool {

namespace {

constexpr std::string_view kExpectedBanner =
    "expected \"%%MatrixMarket matrix coordinate real|integer|pattern general\"";

struct Head {
    bool has_values = true;
    std::uint64_t rows = 0;
    std::uint64_t columns = 0;
    std::uint64_t entries = 0;
};

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return result;
}

// The next line that is neither blank nor a comment.
bool next_line(LineReader& reader, std::string_view& line) {
    while (reader.next(line))
        if (!is_blank_line(line) && line.front() != '%') return true;
    return false;
}

// A whole number without sign; false for anything else.
bool parse_whole(std::string_view text, std::uint64_t& value) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && rest == end;
}

bool read_banner(LineReader& reader) {
    std::string_view line;
    if (!reader.next(line)) reader.refuse_input(fmt::format("is empty, {}", kExpectedBanner));
    if (lower(take_word(line)) != "%%matrixmarket")
        reader.refuse(fmt::format("not a Matrix Market file, {}", kExpectedBanner));
    const std::string object = lower(take_word(line));
    const std::string layout = lower(take_word(line));
    const std::string field = lower(take_word(line));
    const std::string symmetry = lower(take_word(line));
    if (object != "matrix" || layout != "coordinate")
        reader.refuse(
            fmt::format("{} is not supported, {}", quote(object + " " + layout), kExpectedBanner));
    if (field != "real" && field != "integer" && field != "pattern")
        reader.refuse(
            fmt::format("entries of type {} are not supported, {}", quote(field), kExpectedBanner));
    if (symmetry != "general")
        reader.refuse(
            fmt::format("symmetry {} is not supported, {}", quote(symmetry), kExpectedBanner));
    return field != "pattern";
}

Head read_head(LineReader& reader) {
    Head head;
    head.has_values = read_banner(reader);
    std::string_view line;
    if (!next_line(reader, line))
        reader.refuse_input("ends before its size line, expected \"rows columns entries\"");
    const bool good = parse_whole(take_word(line), head.rows) &&
                      parse_whole(take_word(line), head.columns) &&
                      parse_whole(take_word(line), head.entries) && take_word(line).empty();
    if (!good) reader.refuse("bad size line, expected \"rows columns entries\"");
    return head;
}

// Checks a row or column number and returns it as an id, without leading zeros.
std::string_view take_index(std::string_view& line, const char* what, std::uint64_t bound,
                            const LineReader& reader) {
    std::string_view text = take_word(line);
    std::uint64_t index = 0;
    if (!parse_whole(text, index) || index < 1 || index > bound)
        reader.refuse(fmt::format("{} {} is not in the matrix, expected a number from 1 to {}",
                                  what, quote(text), bound));
    text.remove_prefix(text.find_first_not_of('0'));
    return text;
}

}  // namespace

void read_matrix_market(LineReader& reader, RowSink& sink) {
    const Head head = read_head(reader);
    const std::size_t expected_fields = head.has_values ? 3 : 2;
    sink.set_columns(expected_fields);

    std::uint64_t entries = 0;
    Fields fields;
    std::string_view line;
    while (next_line(reader, line)) {
        if (++entries > head.entries)
            reader.refuse(fmt::format("more entries than the {} of the size line", head.entries));
        SpaceSplitter::split(line, reader, fields);
        if (fields.count != expected_fields)
            reader.refuse(fmt::format("expected {} fields ({}), found {}", expected_fields,
                                      head.has_values ? "row column value" : "row column",
                                      fields.count));
        TextRow row;
        row.user = take_index(line, "row", head.rows, reader);
        row.item = take_index(line, "column", head.columns, reader);
        if (head.has_values && parse_rating(fields.at[2], row.rating) != NumberText::kGood)
            reader.refuse(fmt::format("value {} is not a finite number, expected one such as 3.5",
                                      quote(fields.at[2])));
        sink.add(reader, row);
    }
    if (entries < head.entries)
        reader.refuse_input(fmt::format("ends after {} entries, expected the {} of the size line",
                                        entries, head.entries));
}

}  // namespace zxtool
