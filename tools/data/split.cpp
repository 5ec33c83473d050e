#include "split.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace zxtool {

namespace {

// Reads a quoted field, its opening quote being at `position`, and leaves the position behind the
// closing one. Two quotes within the field stand for one.
std::string take_quoted(std::string_view line, std::size_t& position, const LineReader& reader) {
    std::string text;
    for (;;) {
        const std::size_t quote = line.find('"', position + 1);
        if (quote == std::string_view::npos)
            reader.refuse("quoted field is not closed, expected a closing quote on the same line");
        text.append(line, position + 1, quote - position - 1);
        position = quote + 1;
        if (position == line.size() || line[position] != '"') return text;
        text += '"';
    }
}

}  // namespace

void split_quoted(std::string_view line, char separator, const LineReader& reader, Fields& fields) {
    fields.count = 0;
    for (std::size_t position = 0;;) {
        while (position < line.size() && is_blank(line[position])) ++position;
        if (position == line.size() || line[position] != '"') {
            const std::size_t end = std::min(line.find(separator, position), line.size());
            fields.push(trim(line.substr(position, end - position)));
            position = end;
        } else {
            const std::string text = take_quoted(line, position, reader);
            while (position < line.size() && is_blank(line[position])) ++position;
            if (position < line.size() && line[position] != separator)
                reader.refuse(
                    fmt::format("text after the closing quote of field {}, expected \"{}\" or the "
                                "end of the line",
                                fields.count + 1, separator));
            if (fields.count < kMaxColumns) fields.unquoted[fields.count] = text;
            fields.push(fields.count < kMaxColumns ? std::string_view(fields.unquoted[fields.count])
                                                   : std::string_view());
        }
        if (position == line.size()) return;
        ++position;
    }
}

}  // namespace zxtool
