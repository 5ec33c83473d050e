// The lines of an input, without their ends, read in large blocks.
#pragma once

#include "byte_source.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace zxtool {

class LineReader {
  public:
    static constexpr std::size_t kReadable = 64;

    // `on_block` may be empty; see ReadOptions.
    LineReader(const std::string& path, std::function<void(std::uint64_t)> on_block);

    // The next line, without "\n" or "\r\n" and, for the first, without a byte-order mark; false at
    // the end. The line stays valid until the next call, and kReadable bytes from its start may be
    // read, whatever they hold. Throws what ByteSource::read() throws, and
    // Error(kBadInput) for a line longer than any that a data set has.
    bool next(std::string_view& line) {
        const char* const begin = buffer_.data() + begin_;
        const void* const end = std::memchr(begin, '\n', end_ - begin_);
        if (end == nullptr) return next_across_blocks(line);
        take(static_cast<std::size_t>(static_cast<const char*>(end) - begin), line);
        return true;
    }
    // Makes the line handed out last the next one again; once per line.
    void put_back() {
        begin_ = last_begin_;
        --line_number_;
    }

    // The number of the line handed out last, from 1; 0 before the first.
    [[nodiscard]] std::uint64_t line_number() const { return line_number_; }
    // Bytes read from the input, and how many of them belong to lines handed out.
    [[nodiscard]] std::uint64_t bytes() const { return bytes_; }
    [[nodiscard]] std::uint64_t bytes_used() const { return bytes_ - (end_ - begin_); }
    [[nodiscard]] const ByteSource& source() const { return source_; }

    // Throws Error(kBadInput) for the line handed out last: "name:line: what".
    [[noreturn]] void refuse(std::string_view what) const;
    // The same for the input as a whole: "name: what".
    [[noreturn]] void refuse_input(std::string_view what) const;

  private:
    // Hands out `length` bytes and steps over the line end behind them.
    void take(std::size_t length, std::string_view& line) {
        const char* const begin = buffer_.data() + begin_;
        last_begin_ = begin_;
        begin_ += length + 1;
        ++line_number_;
        if (length > 0 && begin[length - 1] == '\r') --length;
        line = {begin, length};
    }
    bool next_across_blocks(std::string_view& line);
    bool read_block();

    ByteSource source_;
    std::function<void(std::uint64_t)> on_block_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  // the unread bytes of the buffer
    std::size_t end_ = 0;
    std::size_t last_begin_ = 0;  // where the line handed out last begins
    bool at_end_ = false;
    std::uint64_t line_number_ = 0;
    std::uint64_t bytes_ = 0;
};

}  // namespace zxtool
