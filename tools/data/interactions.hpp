// Interaction files: who did what, in the formats that data sets come in.
#pragma once

#include "id_map.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zxtool {

enum class Format {
    kDetect,        // by name and first lines; never kLists
    kCsv,           // user,item[,rating[,timestamp]], quoted fields allowed
    kTsv,           // the same, separated by tabs, without quoting
    kSpace,         // the same, separated by any white space
    kColons,        // the same, separated by "::"
    kMatrixMarket,  // coordinate file
    kLists,         // user item item item ...
};

enum class Header { kDetect, kYes, kNo };

struct ReadOptions {
    Format format = Format::kDetect;
    Header header = Header::kDetect;
    // Called with the bytes read so far, decompressed, whenever a block has been read or a signal
    // has arrived; may be empty. What it throws ends the reading.
    std::function<void(std::uint64_t bytes)> on_block = {};
    // A column that is not wanted is checked like the others, but not kept.
    bool wants_ratings = true;
    bool wants_timestamps = true;
};

// Rows in file order. ratings and timestamps are empty when the file has no such column, or when it
// is not wanted.
struct Interactions {
    std::vector<std::uint32_t> users;
    std::vector<std::uint32_t> items;
    std::vector<float> ratings;
    std::vector<std::int64_t> timestamps;

    [[nodiscard]] std::size_t size() const { return users.size(); }
};

struct InteractionFile {
    Interactions rows;
    IdMap users;
    IdMap items;
    std::uint64_t lines = 0;  // of the file, headers and blank ones included
    std::uint64_t bytes = 0;  // after decompression
};

// Reads a whole file ("-" is standard input; gzip when the name ends in .gz) and numbers the ids it
// meets. Throws Error: kBadInput with file, line number, what is wrong and what was expected;
// kInputOutput when the file cannot be read. A file without a single row is bad input.
InteractionFile read_interactions(const std::string& path, const ReadOptions& options);

// What a file said about ids that a model does not know.
struct UnknownIds {
    std::uint64_t rows = 0;   // rows left out
    std::uint64_t users = 0;  // distinct unknown users
    std::uint64_t items = 0;  // distinct unknown items
    std::string first_user;   // an example each, empty when there is none
    std::string first_item;
};

// Reads a file whose ids are a model's: rows with an unknown id are left out and counted. A file
// without rows is fine here and gives none.
Interactions read_known_interactions(const std::string& path, const ReadOptions& options,
                                     const IdMap& users, const IdMap& items, UnknownIds& unknown);

}  // namespace zxtool
