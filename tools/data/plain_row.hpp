// The quick way for the rows that most files consist of: ids of a few digits, a short rating, a
// timestamp of digits, one separator between them and nothing else. It reads eight bytes at a time.
// Whatever is not exactly so, errors included, is left to the general way.
#pragma once

#include "digits.hpp"
#include "id_map.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zxtool {

// Both ids are small, see IdMap.
struct PlainRow {
    std::uint32_t user = 0;
    std::uint32_t item = 0;
    float rating = 0.0F;
    std::int64_t timestamp = 0;
};

// A number of them, column by column.
struct PlainRows {
    static constexpr std::size_t kMaxSize = 256;
    std::array<std::uint32_t, kMaxSize> users;
    std::array<std::uint32_t, kMaxSize> items;
    std::array<float, kMaxSize> ratings;
    std::array<std::int64_t, kMaxSize> timestamps;
    std::size_t size = 0;

    [[nodiscard]] bool is_full() const { return size == kMaxSize; }
    void push(const PlainRow& row) {
        users[size] = row.user;
        items[size] = row.item;
        ratings[size] = row.rating;
        timestamps[size] = row.timestamp;
        ++size;
    }
};

class PlainRowParser {
  public:
    PlainRowParser(std::string_view separator, std::size_t columns)
        : separator_(separator), columns_(columns) {}

    // Parses a line of which LineReader::kReadable bytes may be read; false if it is not plain.
    bool parse(std::string_view line, PlainRow& row) const {
        if (!kReadsDigits) return false;
        const char* at = line.data();
        if (!take_id(at, row.user) || !take_separator(at) || !take_id(at, row.item)) return false;
        if (columns_ >= 3 && (!take_separator(at) || !take_rating(at, row.rating))) return false;
        if (columns_ >= 4 && (!take_separator(at) || !take_timestamp(at, row.timestamp)))
            return false;
        return at == line.data() + line.size();
    }

  private:
    static bool take_id(const char*& at, std::uint32_t& id) {
        const std::uint64_t bytes = load_eight(at);
        const std::uint32_t length = count_digits(bytes);
        if (length == 0 || length == 8 || (*at == '0' && length > 1)) return false;
        id = value_of_digits(bytes, length);
        at += length;
        return id < IdMap::kEndOfSmall;
    }
    bool take_separator(const char*& at) const {
        if (*at != separator_.front()) return false;
        if (separator_.size() == 2 && at[1] != separator_[1]) return false;
        at += separator_.size();
        return true;
    }
    // A digit, or a digit, a point and a digit.
    static bool take_rating(const char*& at, float& rating) {
        const auto whole = static_cast<unsigned>(at[0]) - '0';
        const auto tenth = static_cast<unsigned>(at[2]) - '0';
        if (whole > 9) return false;
        rating = static_cast<float>(whole);
        ++at;
        if (at[0] != '.') return true;
        if (tenth > 9) return false;
        rating = static_cast<float>(whole * 10 + tenth) / 10.0F;
        at += 2;
        return true;
    }
    // Eight to fifteen digits.
    static bool take_timestamp(const char*& at, std::int64_t& timestamp) {
        constexpr std::int64_t kPowersOfTen[] = {1,      10,      100,       1000,
                                                 10'000, 100'000, 1'000'000, 10'000'000};
        const std::uint64_t first = load_eight(at);
        const std::uint64_t second = load_eight(at + 8);
        const std::uint32_t more = count_digits(second);
        if (count_digits(first) < 8 || more == 8) return false;
        const std::int64_t rest = more == 0 ? 0 : value_of_digits(second, more);
        timestamp = value_of_digits(first, 8) * kPowersOfTen[more] + rest;
        at += 8 + more;
        return true;
    }

    std::string_view separator_;
    std::size_t columns_;
};

}  // namespace zxtool
