// A line's fields, for each way of separating them. Blanks around a field that is not quoted are
// not part of it.
#pragma once

#include "line_reader.hpp"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace zxtool {

// The widest row: user, item, rating, timestamp.
inline constexpr std::size_t kMaxColumns = 4;

struct Fields {
    std::size_t count = 0;  // of the line; only the first kMaxColumns are kept
    std::array<std::string_view, kMaxColumns> at;
    std::array<std::string, kMaxColumns> unquoted;  // what `at` shows of quoted fields

    void push(std::string_view field) {
        if (count < kMaxColumns) at[count] = field;
        ++count;
    }
};

inline bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

inline std::string_view trim(std::string_view text) {
    while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
    return text;
}

inline bool is_blank_line(std::string_view line) {
    return trim(line).empty();
}

// Splits the line that the reader handed out last, some of whose fields are quoted. Throws
// Error(kBadInput) for quotes that do not close on the line or close within a field.
void split_quoted(std::string_view line, char separator, const LineReader& reader, Fields& fields);

// Fields between separators of one or more characters.
template <const char* kText, bool kHasQuotes>
struct SeparatorSplitter {
    static constexpr std::string_view kSeparator = kText;

    static void split(std::string_view line, const LineReader& reader, Fields& fields) {
        fields.count = 0;
        for (std::size_t begin = 0;;) {
            const std::size_t end = kSeparator.size() == 1 ? line.find(kSeparator.front(), begin)
                                                           : line.find(kSeparator, begin);
            const std::string_view field = trim(line.substr(begin, end - begin));
            if (kHasQuotes && !field.empty() && field.front() == '"') {
                split_quoted(line, kSeparator.front(), reader, fields);
                return;
            }
            fields.push(field);
            if (end == std::string_view::npos) return;
            begin = end + kSeparator.size();
        }
    }
};

inline constexpr char kComma[] = ",";
inline constexpr char kTab[] = "\t";
inline constexpr char kTwoColons[] = "::";

struct CommaSplitter : SeparatorSplitter<kComma, true> {
    static constexpr const char* kName = "commas";
};
struct TabSplitter : SeparatorSplitter<kTab, false> {
    static constexpr const char* kName = "tabs";
};
struct ColonSplitter : SeparatorSplitter<kTwoColons, false> {
    static constexpr const char* kName = "\"::\"";
};

// Takes the next field of a line separated by white space off its front; empty at the end.
inline std::string_view take_word(std::string_view& line) {
    std::size_t begin = 0;
    while (begin < line.size() && is_blank(line[begin])) ++begin;
    std::size_t end = begin;
    while (end < line.size() && !is_blank(line[end])) ++end;
    const std::string_view word = line.substr(begin, end - begin);
    line.remove_prefix(end);
    return word;
}

struct SpaceSplitter {
    static constexpr std::string_view kSeparator = " ";  // at its plainest
    static constexpr const char* kName = "white space";
    static void split(std::string_view line, const LineReader& /*reader*/, Fields& fields) {
        fields.count = 0;
        for (;;) {
            const std::string_view word = take_word(line);
            if (word.empty()) return;
            fields.push(word);
        }
    }
};

}  // namespace zxtool
