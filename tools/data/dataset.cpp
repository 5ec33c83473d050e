#include "dataset.hpp"

#include "error.hpp"
#include "pair_table.hpp"
#include "random.hpp"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <utility>

namespace zxtool {

namespace {

constexpr std::uint64_t kMaxRows = std::numeric_limits<std::uint32_t>::max();

template <class T>
void keep_rows(std::vector<T>& column, const std::vector<bool>& stays) {
    if (column.empty()) return;
    std::size_t kept = 0;
    for (std::size_t row = 0; row < stays.size(); ++row)
        if (stays[row]) column[kept++] = column[row];
    column.resize(kept);
}

void drop_low_ratings(Interactions& rows, float min_rating) {
    if (rows.ratings.empty())
        throw Error(Exit::kBadInput, "a least rating was given, but the file has no ratings");
    std::vector<bool> stays(rows.size());
    for (std::size_t row = 0; row < rows.size(); ++row)
        stays[row] = rows.ratings[row] >= min_rating;
    keep_rows(rows.users, stays);
    keep_rows(rows.items, stays);
    keep_rows(rows.timestamps, stays);
    keep_rows(rows.ratings, stays);
}

// The entry that a user acted on last: by time, ties and files without times by line.
std::size_t latest_entry(const PairTable& table, std::size_t begin, std::size_t end,
                         const Interactions& rows) {
    const auto earlier = [&rows](const PairEntry& a, const PairEntry& b) {
        if (!rows.timestamps.empty() && rows.timestamps[a.row()] != rows.timestamps[b.row()])
            return rows.timestamps[a.row()] < rows.timestamps[b.row()];
        return a.row() < b.row();
    };
    const PairEntry* const entries = table.entries.data();
    return static_cast<std::size_t>(std::max_element(entries + begin, entries + end, earlier) -
                                    entries);
}

// Marks `wanted` of the entries [begin, end), every such choice being equally likely.
// Method: Knuth, "The Art of Computer Programming", volume 2, 3.4.2, algorithm S.
void choose(std::size_t begin, std::size_t end, std::size_t wanted, SplitMix64& random,
            std::vector<bool>& held_out) {
    for (std::size_t i = begin; wanted > 0; ++i) {
        if (random.below(static_cast<std::uint32_t>(end - i)) >= wanted) continue;
        held_out[i] = true;
        --wanted;
    }
}

std::vector<bool> choose_held_out(const PairTable& table, const Interactions& rows,
                                  const Holdout& holdout, std::uint64_t seed) {
    std::vector<bool> held_out(table.entries.size(), false);
    SplitMix64 random(seed);
    for (std::size_t user = 0; user + 1 < table.starts.size(); ++user) {
        const std::size_t begin = table.starts[user];
        const std::size_t end = table.starts[user + 1];
        if (end - begin < 2) continue;
        if (holdout.kind == Holdout::Kind::kLeaveOneOut) {
            held_out[latest_entry(table, begin, end, rows)] = true;
        } else {
            // A product that only rounding keeps below a whole number counts as that number.
            const double share = holdout.fraction * static_cast<double>(end - begin) + 1e-9;
            const auto wanted = static_cast<std::size_t>(std::floor(share));
            choose(begin, end, std::min(wanted, end - begin - 1), random, held_out);
        }
    }
    return held_out;
}

// Numbers those that stay anew, in their old order, and makes the map of their ids.
std::vector<std::uint32_t> renumber(const std::vector<bool>& stays, IdMap& ids) {
    std::vector<std::uint32_t> numbers(stays.size(), 0);
    IdMap kept;
    std::uint32_t next = 0;
    const bool all_stay = std::find(stays.begin(), stays.end(), false) == stays.end();
    for (std::uint32_t old = 0; old < stays.size(); ++old) {
        if (!stays[old]) continue;
        numbers[old] = next++;
        if (!all_stay) kept.add(ids.name(old));
    }
    if (!all_stay) ids = std::move(kept);
    return numbers;
}

void renumber_users(const PairTable& table, IdMap& users, std::vector<std::uint32_t>& numbers) {
    std::vector<bool> stays(users.size(), false);
    for (std::size_t user = 0; user < stays.size(); ++user)
        stays[user] = table.starts[user] != table.starts[user + 1];
    numbers = renumber(stays, users);
}

void renumber_items(const PairTable& table, IdMap& items, std::vector<std::uint32_t>& numbers) {
    std::vector<bool> stays(items.size(), false);
    for (const PairEntry& entry : table.entries) stays[entry.item()] = true;
    numbers = renumber(stays, items);
}

// Writes the pairs out as training and test pairs. `rows` is what is left of the file; its arrays
// are used again for the training pairs, which saves memory and the time to have it cleared.
void write_out(const PairTable& table, const std::vector<bool>& held_out,
               const std::vector<std::uint32_t>& user_numbers,
               const std::vector<std::uint32_t>& item_numbers, Interactions&& rows,
               Dataset& dataset) {
    const auto num_test =
        static_cast<std::size_t>(std::count(held_out.begin(), held_out.end(), true));
    const std::size_t num_train = table.entries.size() - num_test;
    dataset.test.reserve(num_test);
    dataset.train_users = std::move(rows.users);
    dataset.train_users.resize(num_train);
    dataset.train_items = std::move(rows.items);
    dataset.train_items.resize(num_train);
    if (!table.strengths.empty()) {
        dataset.train_strengths = std::move(rows.ratings);
        dataset.train_strengths.resize(num_train);
    }

    // Where the arrays are is looked up once: for all the compiler knows, writing a number could
    // move them.
    std::uint32_t* train_user = dataset.train_users.data();
    std::uint32_t* train_item = dataset.train_items.data();
    float* train_strength = dataset.train_strengths.data();
    const bool has_held_out = !held_out.empty();
    const bool has_strengths = !table.strengths.empty();
    for (std::size_t user = 0; user + 1 < table.starts.size(); ++user) {
        const std::size_t end = table.starts[user + 1];
        for (std::size_t i = table.starts[user]; i < end; ++i) {
            const std::uint32_t item = item_numbers[table.entries[i].item()];
            if (has_held_out && held_out[i]) {
                dataset.test.emplace_back(user_numbers[user], item);
                continue;
            }
            *train_user++ = user_numbers[user];
            *train_item++ = item;
            if (has_strengths) *train_strength++ = table.strengths[i];
        }
    }
}

}  // namespace

void leave_out_unused(const Preparation& preparation, ReadOptions& read) {
    read.wants_ratings = preparation.weighted || preparation.min_rating.has_value();
    read.wants_timestamps = preparation.holdout.kind == Holdout::Kind::kLeaveOneOut;
}

Dataset prepare(InteractionFile&& file, const Preparation& preparation) {
    InteractionFile taken = std::move(file);
    Interactions& rows = taken.rows;
    Dataset dataset;
    dataset.read_rows = rows.size();
    if (rows.size() > kMaxRows)
        throw Error(Exit::kBadInput,
                    fmt::format("{} interactions, expected {} at most", rows.size(), kMaxRows));

    if (preparation.min_rating) drop_low_ratings(rows, *preparation.min_rating);
    PairTable table = make_pairs(rows, taken.users, taken.items, preparation.weighted);
    keep_core(table, taken.items.size(), preparation.core);
    if (table.entries.empty())
        throw Error(
            Exit::kBadInput,
            fmt::format("none of {} interactions is left after the filters", dataset.read_rows));
    std::vector<bool> held_out;
    if (preparation.holdout.kind != Holdout::Kind::kNone)
        held_out = choose_held_out(table, rows, preparation.holdout, preparation.seed);
    rows.timestamps = {};

    std::vector<std::uint32_t> user_numbers;
    std::vector<std::uint32_t> item_numbers;
    renumber_users(table, taken.users, user_numbers);
    renumber_items(table, taken.items, item_numbers);
    dataset.users = std::move(taken.users);
    dataset.items = std::move(taken.items);
    write_out(table, held_out, user_numbers, item_numbers, std::move(rows), dataset);
    return dataset;
}

SparsePtr make_csr(std::uint32_t num_users, std::uint32_t num_items,
                   const std::vector<std::uint32_t>& users, const std::vector<std::uint32_t>& items,
                   const std::vector<float>& strengths) {
    if (users.empty()) throw Error(Exit::kBadInput, "there are no pairs to learn from");
    if (users.size() > kMaxRows)
        throw Error(Exit::kBadInput,
                    fmt::format("{} pairs, expected {} at most", users.size(), kMaxRows));
    SparsePtr matrix(
        zx_sparse_create(num_users, num_items, static_cast<std::uint32_t>(users.size())));
    if (!matrix)
        throw Error(Exit::kOutOfMemory,
                    fmt::format("no memory for a matrix of {} pairs", users.size()));

    for (const std::uint32_t user : users) {
        if (user >= num_users) throw Error(Exit::kFailure, "a pair's user is out of range");
        ++matrix->row_ptr[user + 1];
    }
    for (std::uint32_t user = 0; user < num_users; ++user)
        matrix->row_ptr[user + 1] += matrix->row_ptr[user];
    std::copy(items.begin(), items.end(), matrix->col_idx);
    if (strengths.empty())
        std::fill_n(matrix->values, users.size(), 1.0F);
    else
        std::copy(strengths.begin(), strengths.end(), matrix->values);
    if (zx_sparse_validate(matrix.get()) != ZX_OK)
        throw Error(Exit::kFailure, "the pairs are not in order");
    return matrix;
}

}  // namespace zxtool
