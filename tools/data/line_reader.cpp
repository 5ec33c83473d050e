#include "line_reader.hpp"

#include "error.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace zxtool {

namespace {

// Half of a core's second-level cache: a block is still there when its lines are split.
constexpr std::size_t kBlockBytes = 256U << 10U;
// A list of a million items is an eighth of this; a longer line is no text.
constexpr std::size_t kMaxLineBytes = 64U << 20U;
// Behind the block: a line end that the last line of a file may lack, and bytes that may be read.
constexpr std::size_t kPadding = 1 + LineReader::kReadable;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

}  // namespace

LineReader::LineReader(const std::string& path, std::function<void(std::uint64_t)> on_block)
    : source_(path,
              [this] {
                  if (on_block_) on_block_(bytes_);
              }),
      on_block_(std::move(on_block)),
      buffer_(kBlockBytes + kPadding) {
    while (end_ < kByteOrderMark.size() && read_block()) continue;
    if (std::string_view(buffer_.data(), end_).starts_with(kByteOrderMark))
        begin_ = kByteOrderMark.size();
}

bool LineReader::next_across_blocks(std::string_view& line) {
    std::size_t searched = 0;
    for (;;) {
        const std::string_view rest(buffer_.data() + begin_, end_ - begin_);
        const std::size_t length = rest.find('\n', searched);
        if (length != std::string_view::npos) {
            take(length, line);
            return true;
        }
        searched = rest.size();
        if (searched > kMaxLineBytes)
            refuse_input(fmt::format("line {} is longer than {} bytes, expected a text file",
                                     line_number_ + 1, kMaxLineBytes));
        if (read_block()) continue;
        if (searched == 0) return false;
        // The last line has no end of its own.
        buffer_[end_] = '\n';
        ++end_;
    }
}

// Appends a block to the unread bytes; false at the end of the input.
bool LineReader::read_block() {
    if (at_end_) return false;
    if (begin_ > 0) {
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
                  buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ + kPadding == buffer_.size()) buffer_.resize(2 * buffer_.size());
    const std::size_t count = source_.read(buffer_.data() + end_, buffer_.size() - kPadding - end_);
    end_ += count;
    bytes_ += count;
    at_end_ = count == 0;
    if (on_block_) on_block_(bytes_);
    return !at_end_;
}

void LineReader::refuse(std::string_view what) const {
    throw Error(Exit::kBadInput, fmt::format("{}:{}: {}", source_.name(), line_number_, what));
}

void LineReader::refuse_input(std::string_view what) const {
    throw Error(Exit::kBadInput, fmt::format("{}: {}", source_.name(), what));
}

}  // namespace zxtool
