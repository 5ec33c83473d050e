#include "text_formats.hpp"

#include "field_text.hpp"
#include "header_line.hpp"
#include "plain_row.hpp"
#include "quote.hpp"
#include "split.hpp"

#include <fmt/format.h>
#include <string_view>

namespace zxtool {

namespace {

constexpr const char* kShapes[] = {"user,item", "user,item,rating", "user,item,rating,timestamp"};

// The next line that is not blank.
bool next_line(LineReader& reader, std::string_view& line) {
    while (reader.next(line))
        if (!is_blank_line(line)) return true;
    return false;
}

[[noreturn]] void refuse_rating(std::string_view text, NumberText fault, const LineReader& reader) {
    if (fault == NumberText::kOutOfRange)
        reader.refuse(
            fmt::format("rating {} is out of range, expected a 32-bit number", quote(text)));
    reader.refuse(
        fmt::format("rating {} is not a finite number, expected one such as 3.5", quote(text)));
}

[[noreturn]] void refuse_timestamp(std::string_view text, NumberText fault,
                                   const LineReader& reader) {
    if (fault == NumberText::kOutOfRange)
        reader.refuse(
            fmt::format("timestamp {} is out of range, expected a 64-bit integer", quote(text)));
    reader.refuse(
        fmt::format("timestamp {} is not an integer, expected one such as 978300760", quote(text)));
}

template <class Splitter>
void check_first_count(const Fields& fields, const LineReader& reader) {
    if (fields.count < 2 || fields.count > kMaxColumns)
        reader.refuse(fmt::format(
            "expected 2 to 4 fields (user,item[,rating[,timestamp]]) separated by {}, found {}",
            Splitter::kName, fields.count));
}

void add_row(const Fields& fields, const LineReader& reader, RowSink& sink) {
    TextRow row;
    row.user = fields.at[0];
    row.item = fields.at[1];
    if (fields.count >= 3) {
        const NumberText result = parse_rating(fields.at[2], row.rating);
        if (result != NumberText::kGood) refuse_rating(fields.at[2], result, reader);
    }
    if (fields.count >= 4) {
        const NumberText result = parse_timestamp(fields.at[3], row.timestamp);
        if (result != NumberText::kGood) refuse_timestamp(fields.at[3], result, reader);
    }
    sink.add(reader, row);
}

// The next line that is not plain. The plain rows in front of it are taken many at a time: their
// ids are looked up side by side, so that the processor waits for many of them at once.
bool next_line_not_plain(const PlainRowParser& plain, LineReader& reader, RowSink& sink,
                         std::string_view& line) {
    PlainRows rows;
    PlainRow row;
    bool has_line = false;
    while ((has_line = reader.next(line)) && plain.parse(line, row)) {
        rows.push(row);
        if (!rows.is_full()) continue;
        sink.add(rows);
        sink.reserve_for_rest(reader);
        rows.size = 0;
    }
    sink.add(rows);
    return has_line;
}

template <class Splitter>
void read_separated(Header header, LineReader& reader, RowSink& sink) {
    std::string_view line;
    if (!next_line(reader, line)) return;
    if (header == Header::kYes && !next_line(reader, line)) return;
    Fields fields;
    Splitter::split(line, reader, fields);
    check_first_count<Splitter>(fields, reader);
    const std::size_t columns = fields.count;
    if (header == Header::kDetect && is_header(fields, reader) && !next_line(reader, line)) return;

    sink.set_columns(columns);
    const PlainRowParser plain(Splitter::kSeparator, columns);
    do {
        if (!is_blank_line(line)) {
            Splitter::split(line, reader, fields);
            if (fields.count != columns)
                reader.refuse(fmt::format("expected {} fields ({}), found {}", columns,
                                          kShapes[columns - 2], fields.count));
            add_row(fields, reader, sink);
        }
        sink.reserve_for_rest(reader);
    } while (sink.takes_plain_rows() ? next_line_not_plain(plain, reader, sink, line)
                                     : reader.next(line));
}

}  // namespace

void read_columns(Format format, Header header, LineReader& reader, RowSink& sink) {
    switch (format) {
        case Format::kTsv:
            return read_separated<TabSplitter>(header, reader, sink);
        case Format::kSpace:
            return read_separated<SpaceSplitter>(header, reader, sink);
        case Format::kColons:
            return read_separated<ColonSplitter>(header, reader, sink);
        default:
            return read_separated<CommaSplitter>(header, reader, sink);
    }
}

void read_lists(Header header, LineReader& reader, RowSink& sink) {
    std::string_view line;
    if (header == Header::kYes && !next_line(reader, line)) return;
    sink.set_columns(2);
    while (next_line(reader, line)) {
        TextRow row;
        row.user = take_word(line);
        for (row.item = take_word(line); !row.item.empty(); row.item = take_word(line))
            sink.add(reader, row);
    }
}

}  // namespace zxtool
