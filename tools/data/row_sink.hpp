// Where the readers of all formats put their rows: ids become numbers, rows with ids that a model
// does not know are left out.
#pragma once

#include "id_map.hpp"
#include "interactions.hpp"
#include "line_reader.hpp"
#include "plain_row.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zxtool {

// A row as it stands in the file. The numbers count only if the file has such columns.
struct TextRow {
    std::string_view user;
    std::string_view item;
    float rating = 0.0F;
    std::int64_t timestamp = 0;
};

class RowSink {
  public:
    // Refers to all that it is given.
    //
    // Numbers every id it meets.
    RowSink(Interactions& rows, IdMap& users, IdMap& items, const ReadOptions& options);
    // Knows these ids and no others.
    RowSink(Interactions& rows, const IdMap& users, const IdMap& items, UnknownIds& unknown,
            const ReadOptions& options);

    // Says how many columns the rows have: 2, or with ratings 3, or with timestamps too 4.
    void set_columns(std::size_t columns) {
        keeps_ratings_ = columns >= 3 && options_.wants_ratings;
        keeps_timestamps_ = columns >= 4 && options_.wants_timestamps;
    }

    // Takes the row in the line that the reader handed out last. Throws Error(kBadInput) for an id
    // that no file of text has.
    void add(const LineReader& reader, const TextRow& row) {
        if (known_users_ != nullptr) {
            add_known(reader, row);
            return;
        }
        const std::uint32_t user = number(*users_, row.user, "user", reader);
        const std::uint32_t item = number(*items_, row.item, "item", reader);
        append(user, item, row.rating, row.timestamp);
    }

    // Whether plain rows may be added: only where every id gets a number.
    [[nodiscard]] bool takes_plain_rows() const { return known_users_ == nullptr; }
    void add(const PlainRows& rows);

    // Makes room for as many rows as the file will have if the rest is like its beginning, so that
    // the arrays are not copied while they grow. Room that is never used costs no memory.
    void reserve_for_rest(const LineReader& reader) {
        if (!has_reserved_ && rows_.size() >= kRowsToEstimateFrom) reserve(reader);
    }

  private:
    static constexpr std::size_t kRowsToEstimateFrom = 1000;

    void reserve(const LineReader& reader);
    static std::uint32_t number(IdMap& ids, std::string_view id, const char* column,
                                const LineReader& reader) {
        const std::uint32_t known = ids.size();
        const std::uint32_t number = ids.add(id);
        if (number == known) check_new_id(id, column, reader);
        return number;
    }
    void append(std::uint32_t user, std::uint32_t item, float rating, std::int64_t timestamp) {
        rows_.users.push_back(user);
        rows_.items.push_back(item);
        if (keeps_ratings_) rows_.ratings.push_back(rating);
        if (keeps_timestamps_) rows_.timestamps.push_back(timestamp);
    }
    void add_known(const LineReader& reader, const TextRow& row);
    static void check_new_id(std::string_view id, const char* column, const LineReader& reader);

    Interactions& rows_;
    IdMap* users_ = nullptr;
    IdMap* items_ = nullptr;
    const IdMap* known_users_ = nullptr;
    const IdMap* known_items_ = nullptr;
    UnknownIds* unknown_ = nullptr;
    IdMap unknown_users_;  // to count each once
    IdMap unknown_items_;
    const ReadOptions& options_;
    bool keeps_ratings_ = false;
    bool keeps_timestamps_ = false;
    bool has_reserved_ = false;
};

}  // namespace zxtool
