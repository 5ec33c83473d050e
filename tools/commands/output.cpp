#include "output.hpp"

#include "console.hpp"
#include "error.hpp"
#include "quote.hpp"
#include "signals.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

namespace zxtool {
namespace {

[[noreturn]] void fail_standard_output() {
    if (errno == EPIPE) throw OutputClosed{};
    if (errno == EINTR) stop_if_interrupted();
    throw Error(Exit::kInputOutput, fmt::format("standard output: {}", std::strerror(errno)));
}

// Characters of UTF-8 text, which is what a column's width is measured in.
std::size_t width_of(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

}  // namespace

void Output::write(std::string_view bytes) {
    if (file_) return file_->write(bytes);
    if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) fail_standard_output();
}

void Output::close() {
    if (file_) return file_->commit();
    if (std::fflush(stdout) != 0) fail_standard_output();
}

bool Output::reader_is_gone() const {
    pollfd descriptor = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    return !file_ && poll(&descriptor, 1, 0) == 1 && (descriptor.revents & POLLERR) != 0;
}

bool Output::is_terminal() const {
    return !file_ && zxtool::is_terminal(stdout);
}

bool Output::colours() const {
    return !file_ && may_colour(stdout);
}

std::string shortest(float value) {
    std::string text;
    append_shortest(text, value);
    return text;
}

void append_shortest(std::string& out, float value) {
    std::array<char, 32> text;  // the longest float takes 15 characters
    const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
    out.append(text.data(), end);
}

Json json_number(float value) {
    if (!std::isfinite(value)) return nullptr;
    const std::string text = shortest(value);
    double result = 0.0;
    std::from_chars(text.data(), text.data() + text.size(), result);
    return result;
}

std::string csv_field(std::string_view field) {
    std::string text;
    append_csv_field(text, field);
    return text;
}

void append_csv_field(std::string& out, std::string_view field) {
    constexpr std::string_view kWhite = " \t";
    const bool quoted = field.empty() || field.find_first_of(",\"\r\n") != std::string_view::npos ||
                        kWhite.find(field.front()) != std::string_view::npos ||
                        kWhite.find(field.back()) != std::string_view::npos;
    if (!quoted) {
        out += field;
        return;
    }
    out += '"';
    for (const char c : field) {
        if (c == '"') out += '"';
        out += c;
    }
    out += '"';
}

std::string json_text(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t control = control_bytes(text);
        result += control != 0 ? '?' : text.front();
        text.remove_prefix(std::max<std::size_t>(control, 1));
    }
    return result;
}

std::string Table::text(bool colours) const {
    std::vector<std::size_t> widths;
    for (std::size_t c = 0; c < columns_.size(); ++c) {
        std::size_t width = width_of(columns_[c].heading);
        for (const auto& row : rows_) width = std::max(width, width_of(printable(row[c])));
        widths.push_back(width);
    }
    const auto line = [&](const auto& cell_of) {
        std::string result;
        for (std::size_t c = 0; c < columns_.size(); ++c) {
            const std::string cell = printable(cell_of(c));
            const std::string padding(widths[c] - width_of(cell), ' ');
            if (c != 0) result += "  ";
            result += columns_[c].right_aligned ? padding + cell : cell + padding;
        }
        result.erase(result.find_last_not_of(' ') + 1);
        return result;
    };
    const std::string headings = line([&](std::size_t c) { return columns_[c].heading; });
    std::string result = colours ? fmt::format("\x1b[1m{}\x1b[0m\n", headings) : headings + "\n";
    for (const auto& row : rows_) result += line([&](std::size_t c) { return row[c]; }) + "\n";
    return result;
}

std::string Table::csv() const {
    std::string result;
    const auto append = [&](std::size_t c, std::string_view cell) {
        if (c != 0) result += ',';
        if (!cell.empty()) result += csv_field(cell);
    };
    for (std::size_t c = 0; c < columns_.size(); ++c) append(c, columns_[c].heading);
    result += '\n';
    for (const auto& row : rows_) {
        for (std::size_t c = 0; c < row.size(); ++c) append(c, row[c]);
        result += '\n';
    }
    return result;
}

std::string summary_text(const Json& summary) {
    std::size_t width = 0;
    for (const auto& [key, value] : summary.items())
        if (value.is_primitive()) width = std::max(width, key.size());
    std::string result;
    for (const auto& [key, value] : summary.items()) {
        if (!value.is_primitive()) continue;
        std::string label = key;
        std::replace(label.begin(), label.end(), '_', ' ');
        std::string shown = value.is_string()    ? printable(value.get<std::string>())
                            : value.is_boolean() ? (value.get<bool>() ? "yes" : "no")
                                                 : json_text(value);
        if (value.is_number_float()) shown = fmt::format("{:.4f}", value.get<double>());
        result += fmt::format("{:<{}}  {}\n", label, width, shown);
    }
    return result;
}

void Table::write_to(Output& output) const {
    output.write(output.is_terminal() ? text(output.colours()) : csv());
}

}  // namespace zxtool
