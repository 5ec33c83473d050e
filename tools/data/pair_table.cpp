#include "pair_table.hpp"

#include "error.hpp"
#include "large_pages.hpp"
#include "quote.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <fmt/format.h>
#include <numeric>

namespace zxtool {

namespace {

// The order of the pairs is that of a number which has the user in its upper and the item in its
// lower bits. Rows are first put into buckets by the upper bits of that number, few enough to be
// written to side by side; a bucket's rows are then sorted by the lower bits, the key, while they
// are in the cache. Users that are scattered over the file thus cost little more than users whose
// rows stand together.
class Buckets {
  public:
    Buckets(std::uint32_t num_users, std::uint32_t num_items)
        : item_bits_(bits_for(num_items)),
          user_bits_(std::min(std::max(bits_for(num_users), kBucketBits) - kBucketBits,
                              kKeyBits - item_bits_)),
          num_users_(num_users) {}

    [[nodiscard]] std::uint32_t count() const { return bucket_of(num_users_ - 1) + 1; }
    [[nodiscard]] std::uint32_t bucket_of(std::uint32_t user) const {
        return static_cast<std::uint32_t>(std::uint64_t{user} >> user_bits_);
    }
    [[nodiscard]] std::uint32_t first_user(std::uint32_t bucket) const {
        return bucket << user_bits_;
    }
    [[nodiscard]] std::uint32_t last_user(std::uint32_t bucket) const {
        const std::uint64_t end = (std::uint64_t{bucket} + 1) << user_bits_;
        return static_cast<std::uint32_t>(std::min<std::uint64_t>(end, num_users_) - 1);
    }
    // Of the key's bits, as many as may be set.
    [[nodiscard]] std::uint32_t key_bits() const { return user_bits_ + item_bits_; }
    [[nodiscard]] std::uint32_t key_of(std::uint32_t user, std::uint32_t item) const {
        const std::uint64_t low_user = user & ((std::uint64_t{1} << user_bits_) - 1);
        return static_cast<std::uint32_t>(low_user << item_bits_ | item);
    }
    [[nodiscard]] std::uint32_t item_of(std::uint32_t key) const {
        return static_cast<std::uint32_t>(key & ((std::uint64_t{1} << item_bits_) - 1));
    }

  private:
    // So many buckets have their ends in the first-level cache while they are filled.
    static constexpr std::uint32_t kBucketBits = 9;
    static constexpr std::uint32_t kKeyBits = 32;

    static std::uint32_t bits_for(std::uint32_t count) {
        return static_cast<std::uint32_t>(std::bit_width(count - 1));
    }

    std::uint32_t item_bits_;
    std::uint32_t user_bits_;  // of a user's number, those in the key
    std::uint32_t num_users_;
};

// Where each bucket begins among rows whose users never descend, and, last, where the last ends.
std::vector<std::size_t> find_buckets(const std::vector<std::uint32_t>& users,
                                      const Buckets& buckets) {
    std::vector<std::size_t> starts = {0};
    for (std::uint32_t bucket = 0; bucket < buckets.count(); ++bucket) {
        const auto end = std::upper_bound(users.begin(), users.end(), buckets.last_user(bucket));
        starts.push_back(static_cast<std::size_t>(end - users.begin()));
    }
    return starts;
}

// The same for rows in any order, if they were sorted by bucket.
std::vector<std::size_t> count_buckets(const std::vector<std::uint32_t>& users,
                                       const Buckets& buckets) {
    std::vector<std::size_t> starts(std::size_t{buckets.count()} + 1, 0);
    for (const std::uint32_t user : users) ++starts[buckets.bucket_of(user)];
    std::exclusive_scan(starts.begin(), starts.end(), starts.begin(), std::size_t{0});
    return starts;
}

// Makes the entries, with keys in place of items: bucket after bucket, in file order within each.
// Returns where each bucket begins and, last, where the last one ends.
std::vector<std::size_t> fill_buckets(const Interactions& rows, const Buckets& buckets,
                                      std::vector<PairEntry>& entries) {
    reserve_large(entries, rows.size());
    entries.resize(rows.size());
    const auto entry_of = [&](std::size_t row) {
        return PairEntry(buckets.key_of(rows.users[row], rows.items[row]),
                         static_cast<std::uint32_t>(row));
    };
    // Users are numbered as they appear, so a file that has each user's rows together, as most
    // have, is in the order of the buckets.
    if (std::is_sorted(rows.users.begin(), rows.users.end())) {
        for (std::size_t row = 0; row < rows.size(); ++row) entries[row] = entry_of(row);
        return find_buckets(rows.users, buckets);
    }
    std::vector<std::size_t> starts = count_buckets(rows.users, buckets);
    std::vector<std::size_t> next(starts.begin(), starts.end() - 1);
    for (std::size_t row = 0; row < rows.size(); ++row)
        entries[next[buckets.bucket_of(rows.users[row])]++] = entry_of(row);
    return starts;
}

// Sorts entries with keys, which are in the order of their rows already, by key: a radix sort for
// many, as it takes a fixed time for each.
class EntrySorter {
  public:
    explicit EntrySorter(std::uint32_t key_bits) : key_bits_(key_bits) {}

    // The sorted entries are either where they were or in the sorter's own scratch, valid until the
    // next call.
    const PairEntry* sort(PairEntry* entries, std::size_t count) {
        if (count < kFewEntries) {
            std::sort(entries, entries + count);
            return entries;
        }
        scratch_.resize(std::max(scratch_.size(), count));
        PairEntry* from = entries;
        PairEntry* to = scratch_.data();
        for (std::uint32_t shift = 0; shift < key_bits_; shift += kDigitBits) {
            sort_by_digit(from, to, count, shift);
            std::swap(from, to);
        }
        return from;
    }

  private:
    static constexpr std::uint32_t kDigitBits = 8;
    static constexpr std::size_t kFewEntries = 32;

    // Entries with the same digit stay in their order.
    static void sort_by_digit(const PairEntry* from, PairEntry* to, std::size_t count,
                              std::uint32_t shift) {
        std::array<std::size_t, (1U << kDigitBits)> next{};
        const auto digit_of = [shift](const PairEntry& entry) {
            return (entry.item() >> shift) & ((1U << kDigitBits) - 1);
        };
        for (std::size_t i = 0; i < count; ++i) ++next[digit_of(from[i])];
        std::exclusive_scan(next.begin(), next.end(), next.begin(), std::size_t{0});
        for (std::size_t i = 0; i < count; ++i) to[next[digit_of(from[i])]++] = from[i];
    }

    std::uint32_t key_bits_;
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
    PairTable table;
    table.starts.reserve(std::size_t{users.size()} + 1);
    if (rows.size() == 0) {
        table.starts.assign(std::size_t{users.size()} + 1, 0);
        return table;
    }
    const Buckets buckets(users.size(), items.size());
    const std::vector<std::size_t> bucket_starts = fill_buckets(rows, buckets, table.entries);
    if (weighted) reserve_large(table.strengths, table.entries.size());
    EntrySorter sorter(buckets.key_bits());
    std::size_t kept = 0;
    for (std::uint32_t bucket = 0; bucket < buckets.count(); ++bucket) {
        const std::size_t count = bucket_starts[bucket + 1] - bucket_starts[bucket];
        const PairEntry* begin = sorter.sort(table.entries.data() + bucket_starts[bucket], count);
        const PairEntry* const end = begin + count;
        for (std::uint32_t user = buckets.first_user(bucket); user <= buckets.last_user(bucket);
             ++user) {
            table.starts.push_back(kept);
            const std::uint32_t last_key = buckets.key_of(user, items.size() - 1);
            while (begin != end && begin->item() <= last_key) {
                const PairEntry* next = begin + 1;
                while (next != end && next->item() == begin->item()) ++next;
                const std::uint32_t item = buckets.item_of(begin->item());
                if (weighted)
                    table.strengths.push_back(checked_strength(summed_strength(begin, next, rows),
                                                               users.name(user), items.name(item)));
                table.entries[kept++] = PairEntry(item, latest(begin, next, rows).row());
                begin = next;
            }
        }
    }
    table.starts.push_back(kept);
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
