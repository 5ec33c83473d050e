#include "pair_table.hpp"

#include "error.hpp"
#include "large_pages.hpp"
#include "quote.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>
#include <numeric>

namespace zxtool {

namespace {

// Groups the rows by user, in file order within each: a counting sort.
PairTable group_by_user(const Interactions& rows, std::uint32_t num_users) {
    PairTable table;
    table.starts.assign(std::size_t{num_users} + 1, 0);
    for (const std::uint32_t user : rows.users) ++table.starts[user];
    std::exclusive_scan(table.starts.begin(), table.starts.end(), table.starts.begin(),
                        std::size_t{0});

    reserve_large(table.entries, rows.size());
    table.entries.resize(rows.size());
    std::vector<std::size_t> next(table.starts.begin(), table.starts.end() - 1);
    for (std::size_t row = 0; row < rows.size(); ++row)
        table.entries[next[rows.users[row]]++] =
            PairEntry(rows.items[row], static_cast<std::uint32_t>(row));
    return table;
}

// Sorts the entries of one user, which are in the order of their rows already, by item: a radix
// sort for many, as it takes a fixed time for each.
class EntrySorter {
  public:
    explicit EntrySorter(std::uint32_t num_items) {
        while (num_items > std::uint64_t{1} << (kDigitBits * num_digits_)) ++num_digits_;
    }

    void sort(PairEntry* entries, std::size_t count) {
        if (count < kFewEntries) {
            std::sort(entries, entries + count);
            return;
        }
        scratch_.resize(std::max(scratch_.size(), count));
        for (std::uint32_t digit = 0; digit < num_digits_; ++digit) {
            sort_by_digit(entries, scratch_.data(), count, kDigitBits * digit);
            std::copy_n(scratch_.data(), count, entries);
        }
    }

  private:
    static constexpr std::uint32_t kDigitBits = 8;
    static constexpr std::size_t kFewEntries = 32;

    // Entries with the same digit stay in their order.
    static void sort_by_digit(const PairEntry* from, PairEntry* to, std::size_t count,
                              std::uint32_t shift) {
        std::array<std::uint32_t, (1U << kDigitBits)> next{};
        const auto digit_of = [shift](const PairEntry& entry) {
            return (entry.item() >> shift) & ((1U << kDigitBits) - 1);
        };
        for (std::size_t i = 0; i < count; ++i) ++next[digit_of(from[i])];
        std::exclusive_scan(next.begin(), next.end(), next.begin(), 0U);
        for (std::size_t i = 0; i < count; ++i) to[next[digit_of(from[i])]++] = from[i];
    }

    std::uint32_t num_digits_ = 1;
    std::vector<PairEntry> scratch_;
};

// Of the rows [begin, end) of one pair, in file order, the latest: by time, ties and files without
// times by line.
PairEntry latest(const PairEntry* begin, const PairEntry* end, const Interactions& rows) {
    if (rows.timestamps.empty()) return end[-1];
    const PairEntry* best = begin;
    for (const PairEntry* entry = begin + 1; entry != end; ++entry)
        if (rows.timestamps[entry->row()] >= rows.timestamps[best->row()]) best = entry;
    return *best;
}

double summed_strength(const PairEntry* begin, const PairEntry* end, const Interactions& rows) {
    if (rows.ratings.empty()) return static_cast<double>(end - begin);
    return std::accumulate(begin, end, 0.0, [&rows](double sum, const PairEntry& entry) {
        return sum + static_cast<double>(rows.ratings[entry.row()]);
    });
}

float checked_strength(double sum, std::string_view user, std::string_view item) {
    const auto strength = static_cast<float>(sum);
    if (sum < 0.0 || !std::isfinite(strength))
        throw Error(Exit::kBadInput,
                    fmt::format("strength {} of user {} and item {} cannot be a weight, expected 0 "
                                "or more as a 32-bit number",
                                sum, quote(user), quote(item)));
    return strength;
}

}  // namespace

PairTable make_pairs(const Interactions& rows, const IdMap& users, const IdMap& items,
                     bool weighted) {
    PairTable table = group_by_user(rows, users.size());
    if (weighted) reserve_large(table.strengths, table.entries.size());
    PairEntry* const entries = table.entries.data();
    EntrySorter sorter(items.size());
    std::size_t kept = 0;
    std::size_t begin = 0;
    for (std::uint32_t user = 0; user < users.size(); ++user) {
        const std::size_t end = table.starts[user + 1];
        table.starts[user] = kept;
        sorter.sort(entries + begin, end - begin);
        while (begin < end) {
            std::size_t next = begin + 1;
            while (next < end && entries[next].item() == entries[begin].item()) ++next;
            if (weighted) {
                const double sum = summed_strength(entries + begin, entries + next, rows);
                table.strengths.push_back(
                    checked_strength(sum, users.name(user), items.name(entries[begin].item())));
            }
            entries[kept++] = latest(entries + begin, entries + next, rows);
            begin = next;
        }
    }
    table.starts[users.size()] = kept;
    table.entries.resize(kept);
    return table;
}

void keep_core(PairTable& table, std::uint32_t num_items, std::uint32_t core) {
    if (core < 2) return;  // whoever appears has one pair
    std::vector<std::uint32_t> item_counts(num_items, 0);
    for (const PairEntry& entry : table.entries) ++item_counts[entry.item()];

    // What is left at the end does not depend on the order in which pairs go, so the counts may
    // change within a pass.
    const std::size_t num_users = table.starts.size() - 1;
    for (bool changed = true; changed;) {
        std::size_t kept = 0;
        for (std::size_t user = 0; user < num_users; ++user) {
            const std::size_t begin = table.starts[user];
            const std::size_t end = table.starts[user + 1];
            const bool user_stays = end - begin >= core;
            table.starts[user] = kept;
            for (std::size_t i = begin; i < end; ++i) {
                std::uint32_t& item_count = item_counts[table.entries[i].item()];
                if (!user_stays || item_count < core) {
                    --item_count;
                    continue;
                }
                table.entries[kept] = table.entries[i];
                if (!table.strengths.empty()) table.strengths[kept] = table.strengths[i];
                ++kept;
            }
        }
        changed = kept != table.entries.size();
        table.starts[num_users] = kept;
        table.entries.resize(kept);
        if (!table.strengths.empty()) table.strengths.resize(kept);
    }
}

}  // namespace zxtool
