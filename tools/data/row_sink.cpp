#include "row_sink.hpp"

#include "large_pages.hpp"
#include "quote.hpp"

#include <algorithm>
#include <array>
#include <exception>
#include <fmt/format.h>

namespace zxtool {

namespace {

template <class T, std::size_t kSize>
void append_values(std::vector<T>& column, const std::array<T, kSize>& values, std::size_t count) {
    column.insert(column.end(), values.data(), values.data() + count);
}

void append_numbers(std::vector<std::uint32_t>& column, IdMap& ids,
                    const std::array<std::uint32_t, PlainRows::kMaxSize>& values,
                    std::size_t count) {
    const std::size_t size = column.size();
    column.resize(size + count);
    for (std::size_t i = 0; i < count; ++i) column[size + i] = ids.add_small(values[i]);
}

}  // namespace

RowSink::RowSink(Interactions& rows, IdMap& users, IdMap& items, const ReadOptions& options)
    : rows_(rows), users_(&users), items_(&items), options_(options) {}

RowSink::RowSink(Interactions& rows, const IdMap& users, const IdMap& items, UnknownIds& unknown,
                 const ReadOptions& options)
    : rows_(rows),
      known_users_(&users),
      known_items_(&items),
      unknown_(&unknown),
      options_(options) {}

void RowSink::add(const PlainRows& rows) {
    append_numbers(rows_.users, *users_, rows.users, rows.size);
    append_numbers(rows_.items, *items_, rows.items, rows.size);
    if (keeps_ratings_) append_values(rows_.ratings, rows.ratings, rows.size);
    if (keeps_timestamps_) append_values(rows_.timestamps, rows.timestamps, rows.size);
}

void RowSink::add_known(const LineReader& reader, const TextRow& row) {
    const auto user = known_users_->find(row.user);
    const auto item = known_items_->find(row.item);
    if (user && item) {
        append(*user, *item, row.rating, row.timestamp);
        return;
    }
    ++unknown_->rows;
    if (!user) {
        if (unknown_->first_user.empty()) unknown_->first_user = row.user;
        number(unknown_users_, row.user, "user", reader);
        unknown_->users = unknown_users_.size();
    }
    if (!item) {
        if (unknown_->first_item.empty()) unknown_->first_item = row.item;
        number(unknown_items_, row.item, "item", reader);
        unknown_->items = unknown_items_.size();
    }
}

void RowSink::reserve(const LineReader& reader) {
    has_reserved_ = true;
    const std::uint64_t bytes_so_far = std::max<std::uint64_t>(reader.bytes_used(), 1);
    const std::uint64_t rows_so_far = rows_.size();
    const double rows_per_byte =
        static_cast<double>(rows_so_far) / static_cast<double>(bytes_so_far);
    // More rows than a matrix can have are never worth room in advance.
    constexpr double kMaxRows = UINT32_MAX;
    const auto expected = static_cast<std::size_t>(std::min(
        1.05 * rows_per_byte * static_cast<double>(reader.source().size_hint()), kMaxRows));
    try {
        reserve_large(rows_.users, expected);
        reserve_large(rows_.items, expected);
        if (keeps_ratings_) reserve_large(rows_.ratings, expected);
        if (keeps_timestamps_) reserve_large(rows_.timestamps, expected);
    } catch (const std::exception&) {
        // The estimate may be far too high: a file may begin with its shortest lines. Without the
        // room the arrays grow step by step.
    }
}

void RowSink::check_new_id(std::string_view id, const char* column, const LineReader& reader) {
    if (id.empty()) reader.refuse(fmt::format("{} is empty, expected an id", column));
    if (id.find('\0') != std::string_view::npos)
        reader.refuse(fmt::format("{} {} has a zero byte, expected text", column, quote(id)));
}

}  // namespace zxtool
