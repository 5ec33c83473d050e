#include "interactions.hpp"

#include "error.hpp"
#include "line_reader.hpp"
#include "matrix_market.hpp"
#include "row_sink.hpp"
#include "split.hpp"
#include "text_formats.hpp"

#include <fmt/format.h>
#include <string_view>

namespace zxtool {

namespace {

Format format_by_name(std::string_view path) {
    if (path.ends_with(".gz")) path.remove_suffix(3);
    if (path.ends_with(".csv")) return Format::kCsv;
    if (path.ends_with(".tsv")) return Format::kTsv;
    if (path.ends_with(".mtx")) return Format::kMatrixMarket;
    return Format::kDetect;
}

// The separator that the first line has, the rarest in ids first.
Format format_by_first_line(LineReader& reader) {
    std::string_view line;
    do {
        if (!reader.next(line)) return Format::kSpace;
    } while (is_blank_line(line));
    reader.put_back();
    if (line.starts_with("%%MatrixMarket")) return Format::kMatrixMarket;
    if (line.find('\t') != std::string_view::npos) return Format::kTsv;
    if (line.find("::") != std::string_view::npos) return Format::kColons;
    if (line.find(',') != std::string_view::npos) return Format::kCsv;
    return Format::kSpace;
}

void read_rows(LineReader& reader, const std::string& path, const ReadOptions& options,
               RowSink& sink) {
    Format format = options.format;
    if (format == Format::kDetect) format = format_by_name(path);
    if (format == Format::kDetect) format = format_by_first_line(reader);
    if (format == Format::kMatrixMarket)
        read_matrix_market(reader, sink);
    else if (format == Format::kLists)
        read_lists(options.header, reader, sink);
    else
        read_columns(format, options.header, reader, sink);
}

}  // namespace

InteractionFile read_interactions(const std::string& path, const ReadOptions& options) {
    InteractionFile file;
    LineReader reader(path, options.on_block);
    RowSink sink(file.rows, file.users, file.items, options);
    read_rows(reader, path, options, sink);
    if (file.rows.size() == 0)
        reader.refuse_input("has no interactions, expected lines such as user,item,rating");
    file.lines = reader.line_number();
    file.bytes = reader.bytes();
    return file;
}

Interactions read_known_interactions(const std::string& path, const ReadOptions& options,
                                     const IdMap& users, const IdMap& items, UnknownIds& unknown) {
    Interactions rows;
    LineReader reader(path, options.on_block);
    RowSink sink(rows, users, items, unknown, options);
    read_rows(reader, path, options, sink);
    return rows;
}

}  // namespace zxtool
