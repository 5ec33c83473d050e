#include "header_line.hpp"

#include "field_text.hpp"
#include "quote.hpp"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <optional>
#include <string>

namespace zxtool {

namespace {

constexpr std::array<const char*, kMaxColumns> kColumnNames = {"user", "item", "rating",
                                                               "timestamp"};

struct KnownName {
    std::string_view name;
    std::size_t column;
};

constexpr KnownName kKnownNames[] = {
    {"user", 0},       {"userid", 0},         {"uid", 0},
    {"username", 0},   {"userindex", 0},      {"customer", 0},
    {"customerid", 0}, {"reviewerid", 0},     {"visitorid", 0},
    {"item", 1},       {"itemid", 1},         {"iid", 1},
    {"itemname", 1},   {"itemindex", 1},      {"movie", 1},
    {"movieid", 1},    {"book", 1},           {"bookid", 1},
    {"isbn", 1},       {"artist", 1},         {"artistid", 1},
    {"track", 1},      {"trackid", 1},        {"song", 1},
    {"songid", 1},     {"product", 1},        {"productid", 1},
    {"business", 1},   {"businessid", 1},     {"asin", 1},
    {"rating", 2},     {"ratings", 2},        {"score", 2},
    {"stars", 2},      {"weight", 2},         {"value", 2},
    {"strength", 2},   {"count", 2},          {"plays", 2},
    {"playcount", 2},  {"timestamp", 3},      {"time", 3},
    {"ts", 3},         {"date", 3},           {"datetime", 3},
    {"unixtime", 3},   {"unixreviewtime", 3},
};

// The column that a field names, if it is a known name in any spelling. Some files add the type of
// a column behind a colon.
std::optional<std::size_t> named_column(std::string_view field) {
    std::string name;
    for (const char c : field.substr(0, field.find(':'))) {
        if (c >= 'A' && c <= 'Z') name += static_cast<char>(c - 'A' + 'a');
        if (c >= 'a' && c <= 'z') name += c;
        if ((c >= '0' && c <= '9') || static_cast<unsigned char>(c) >= 0x80) return std::nullopt;
    }
    const auto* const known =
        std::find_if(std::begin(kKnownNames), std::end(kKnownNames),
                     [&name](const KnownName& entry) { return entry.name == name; });
    if (known == std::end(kKnownNames)) return std::nullopt;
    return known->column;
}

}  // namespace

bool is_header(const Fields& fields, const LineReader& reader) {
    const std::size_t kept = std::min(fields.count, kMaxColumns);
    if (kept < 2) return false;
    const auto first = named_column(fields.at[0]);
    const auto second = named_column(fields.at[1]);
    const bool names_pair = first && second && *first < 2 && *second < 2 && *first != *second;
    const bool has_number = std::any_of(fields.at.begin(), fields.at.begin() + kept, is_number);
    if (!names_pair && (kept == 2 || has_number)) return false;

    for (std::size_t column = 0; column < kept; ++column) {
        const auto named = named_column(fields.at[column]);
        if (named && *named != column)
            reader.refuse(fmt::format(
                "column {} is named {}, expected the {} (columns are user,item[,rating[,"
                "timestamp]])",
                column + 1, quote(fields.at[column]), kColumnNames[column]));
    }
    return true;
}

}  // namespace zxtool
