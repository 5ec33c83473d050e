// Results: standard output or a file, as a table for a person, as CSV or as JSON for a program.
#pragma once

#include "atomic_file.hpp"

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zxtool {

using Json = nlohmann::ordered_json;

// Thrown when the reader of standard output has gone away; the program then ends quietly.
struct OutputClosed {};

// Standard output, or a file that is there whole or not at all.
class Output {
  public:
    // Standard output.
    Output() = default;
    // A file; appears at close().
    explicit Output(const std::string& path) : file_(std::in_place, path) {}

    void write(std::string_view bytes);
    // For a writer that wants a stream.
    [[nodiscard]] std::FILE* stream() { return file_ ? file_->stream() : stdout; }
    // Whether standard output is a pipe that nobody reads any more.
    [[nodiscard]] bool reader_is_gone() const;
    // Writes out what is buffered. Throws Error(kInputOutput), or OutputClosed.
    void close();

    // Whether a person is looking on.
    [[nodiscard]] bool is_terminal() const;
    [[nodiscard]] bool colours() const;

  private:
    std::optional<AtomicFile> file_;
};

// The shortest decimal number that reads back as the same float. What appends makes no string of
// its own: of long lists, making strings would take longer than finding what to list.
std::string shortest(float value);
void append_shortest(std::string& out, float value);

// The same number for JSON, whose numbers are doubles; a value that is not finite becomes null.
Json json_number(float value);

// A field of a CSV line: in quotes, with quotes doubled, when it holds a comma, a quote or a line
// break, begins or ends with white space, or is empty.
std::string csv_field(std::string_view field);
void append_csv_field(std::string& out, std::string_view field);

// JSON as text on one line; bytes that are no UTF-8 become U+FFFD.
std::string json_text(const Json& value);

// A summary for a person: a line for each entry of a JSON object that is neither list nor object.
std::string summary_text(const Json& summary);

// Rows under headings. Numbers are right-aligned when the column says so.
class Table {
  public:
    struct Column {
        std::string heading;
        bool right_aligned = false;
    };
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // One cell per column.
    void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    // Padded columns, two spaces apart, headings in bold when `colours`.
    [[nodiscard]] std::string text(bool colours) const;
    // One line per row after a line of headings.
    [[nodiscard]] std::string csv() const;
    // text() on a terminal, csv() elsewhere.
    void write_to(Output& output) const;

  private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

// What a terminal shows of an id or name: bytes that would move the cursor become '?'.
std::string printable(std::string_view text);

}  // namespace zxtool
