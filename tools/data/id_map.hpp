// The user's ids, which are any strings, as the numbers 0 to n - 1 in order of first appearance.
//
// An id that is a plain number of a few digits, as those of most data sets are, is looked up by its
// value in an array, which is several times smaller than a hash table and thus stays in the cache.
// All others are in an open-addressing table over the arena of names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace zxtool {

class IdMap {
  public:
    // Ids that are numbers below this one, without leading zeros, are looked up by their value.
    static constexpr std::uint32_t kEndOfSmall = 1U << 20U;

    // The number of an id, given out now if it is new. Throws Error(kBadInput) beyond 2^32 - 1 ids.
    std::uint32_t add(std::string_view id);
    // The same for an id that is a number below kEndOfSmall, without leading zeros.
    std::uint32_t add_small(std::uint32_t value) {
        if (value < by_value_.size() && by_value_[value] != kNone) return by_value_[value];
        return add_new_small(value);
    }
    // The number of an id, if it is known.
    [[nodiscard]] std::optional<std::uint32_t> find(std::string_view id) const;
    // The id of a number below size(). Valid until the next add().
    [[nodiscard]] std::string_view name(std::uint32_t number) const {
        const std::uint64_t begin = number == 0 ? 0 : ends_[number - 1];
        return {names_.data() + begin, ends_[number] - begin};
    }
    [[nodiscard]] std::uint32_t size() const { return static_cast<std::uint32_t>(ends_.size()); }

  private:
    static constexpr std::uint32_t kNone = 0xFFFFFFFFU;

    struct Slot {
        std::uint32_t hash;    // its upper half, which the position in the table does not tell
        std::uint32_t number;  // kNone when the slot is empty
    };

    std::uint32_t add_new_small(std::uint32_t value);
    std::uint32_t append_name(std::string_view id);
    [[nodiscard]] std::size_t slot_of(std::uint64_t hash, std::string_view id) const;
    void grow_slots();

    std::vector<std::uint32_t> by_value_;  // the numbers of small ids, kNone where there is none
    std::vector<Slot> slots_;              // a power of two of them, at most half taken
    std::size_t num_hashed_ = 0;
    std::vector<char> names_;          // all ids, one behind the other
    std::vector<std::uint64_t> ends_;  // where each id ends in names_
};

}  // namespace zxtool
