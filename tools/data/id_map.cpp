#include "id_map.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

// The hash functions are compiled in: no library of theirs is needed at run time.
#define XXH_INLINE_ALL
#include "error.hpp"

#include <xxhash.h>

namespace zxtool {

namespace {

constexpr std::size_t kFirstSlots = 1024;
constexpr std::size_t kFirstSmall = 1024;

std::uint64_t hash_of(std::string_view id) {
    return XXH3_64bits(id.data(), id.size());
}

std::uint32_t upper_half(std::uint64_t hash) {
    return static_cast<std::uint32_t>(hash >> 32U);
}

// The value of an id that is looked up by it.
std::optional<std::uint32_t> small_value(std::string_view id) {
    constexpr std::size_t kMaxDigits = 7;  // of the largest such value
    if (id.empty() || id.size() > kMaxDigits || (id.front() == '0' && id.size() > 1))
        return std::nullopt;
    std::uint32_t value = 0;
    for (const char c : id) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<std::uint32_t>(c - '0');
    }
    if (value >= IdMap::kEndOfSmall) return std::nullopt;
    return value;
}

}  // namespace

std::uint32_t IdMap::add(std::string_view id) {
    if (const auto value = small_value(id)) return add_small(*value);
    if (num_hashed_ * 2 >= slots_.size()) grow_slots();
    const std::uint64_t hash = hash_of(id);
    Slot& slot = slots_[slot_of(hash, id)];
    if (slot.number != kNone) return slot.number;
    slot = {upper_half(hash), append_name(id)};
    ++num_hashed_;
    return slot.number;
}

std::uint32_t IdMap::add_new_small(std::uint32_t value) {
    if (value >= by_value_.size()) {
        std::size_t size = std::max(by_value_.size(), kFirstSmall);
        while (size <= value) size *= 2;
        by_value_.resize(size, kNone);
    }
    char text[8];
    const auto [end, error] = std::to_chars(std::begin(text), std::end(text), value);
    by_value_[value] = append_name({text, static_cast<std::size_t>(end - text)});
    return by_value_[value];
}

std::optional<std::uint32_t> IdMap::find(std::string_view id) const {
    std::uint32_t number = kNone;
    if (const auto value = small_value(id)) {
        if (*value < by_value_.size()) number = by_value_[*value];
    } else if (!slots_.empty()) {
        number = slots_[slot_of(hash_of(id), id)].number;
    }
    if (number == kNone) return std::nullopt;
    return number;
}

std::uint32_t IdMap::append_name(std::string_view id) {
    if (size() == kNone) throw Error(Exit::kBadInput, "more than 4294967295 different ids");
    names_.insert(names_.end(), id.begin(), id.end());
    ends_.push_back(names_.size());
    return size() - 1;
}

// The slot that holds an id, or the free one where it belongs.
std::size_t IdMap::slot_of(std::uint64_t hash, std::string_view id) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
        const Slot& slot = slots_[i];
        if (slot.number == kNone) return i;
        if (slot.hash == upper_half(hash) && name(slot.number) == id) return i;
    }
}

void IdMap::grow_slots() {
    std::vector<Slot> larger(std::max(slots_.size() * 2, kFirstSlots), Slot{0, kNone});
    const std::size_t mask = larger.size() - 1;
    for (const Slot& slot : slots_) {
        if (slot.number == kNone) continue;
        std::size_t i = hash_of(name(slot.number)) & mask;
        while (larger[i].number != kNone) i = (i + 1) & mask;
        larger[i] = slot;
    }
    slots_ = std::move(larger);
}

}  // namespace zxtool
