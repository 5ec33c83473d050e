#include "generate.hpp"

#include "alias_table.hpp"
#include "error.hpp"
#include "random.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <string>
#include <utility>
#include <vector>

namespace zxtool {

namespace {

constexpr double kPopularityOffset = 3.0;  // flattens the top: the most popular item is no outlier
constexpr double kFavouriteShare = 0.75;   // of the draws that follow the user's taste
constexpr std::uint64_t kFewestRows = 5;   // of a user, as far as the rows go round
constexpr int kMaxTries = 100;
constexpr std::int64_t kFirstTimestamp = 1'000'000'000;
constexpr std::size_t kBlockBytes = 256U << 10U;

void check(const GenerateOptions& options) {
    const auto refuse = [](const std::string& what) { throw Error(Exit::kUsage, what); };
    if (options.num_users == 0 || options.num_items < 2 || options.num_interactions == 0)
        refuse("a data set needs a user, two items and an interaction at least");
    if (options.rank == 0 || options.rank > options.num_items)
        refuse(fmt::format("rank {} is out of range, expected 1 to the number of items, {}",
                           options.rank, options.num_items));
    if (!(options.noise >= 0.0 && options.noise <= 1.0))
        refuse(fmt::format("noise {} is out of range, expected 0 to 1", options.noise));
    const std::uint64_t most = std::uint64_t{options.num_users} * (options.num_items / 2);
    if (options.num_interactions > most)
        refuse(fmt::format("{} interactions are too many, expected {} at most: half of all pairs",
                           options.num_interactions, most));
}

// The items and how a user draws from them. An item is known by its place in the order of
// popularity; place p belongs to group p modulo rank, so that every group has its share of the
// popular ones.
class Catalogue {
  public:
    Catalogue(const GenerateOptions& options, SplitMix64& random)
        : num_groups_(options.rank),
          noise_(options.noise),
          all_(popularity(0, 1, options.num_items)) {
        for (std::uint32_t group = 0; group < num_groups_; ++group)
            groups_.emplace_back(popularity(group, num_groups_, options.num_items));
        ids_.resize(options.num_items);
        for (std::uint32_t i = 0; i < options.num_items; ++i) ids_[i] = i + 1;
        for (std::uint32_t i = options.num_items - 1; i > 0; --i)
            std::swap(ids_[i], ids_[random.below(i + 1)]);
    }

    [[nodiscard]] std::uint32_t draw(std::uint32_t favourite, std::uint32_t second,
                                     SplitMix64& random) const {
        if (random.uniform() < noise_) return all_.draw(random);
        const std::uint32_t group = random.uniform() < kFavouriteShare ? favourite : second;
        return group + num_groups_ * groups_[group].draw(random);
    }
    [[nodiscard]] std::uint32_t group(std::uint32_t place) const { return place % num_groups_; }
    [[nodiscard]] std::uint32_t id(std::uint32_t place) const { return ids_[place]; }
    [[nodiscard]] std::uint32_t size() const { return static_cast<std::uint32_t>(ids_.size()); }

  private:
    // The weights of every `step`-th place from `first`.
    static std::vector<double> popularity(std::uint32_t first, std::uint32_t step,
                                          std::uint32_t end) {
        std::vector<double> weights;
        for (std::uint64_t place = first; place < end; place += step)
            weights.push_back(1.0 / (static_cast<double>(place) + kPopularityOffset));
        return weights;
    }

    std::uint32_t num_groups_;
    double noise_;
    AliasTable all_;
    std::vector<AliasTable> groups_;
    std::vector<std::uint32_t> ids_;  // by place; says nothing about popularity
};

// How many rows each user has: a few each, the rest in proportion to weights of which the largest
// is about ten times the smallest, and never more than half of the items.
std::vector<std::uint32_t> share_out(const GenerateOptions& options, SplitMix64& random) {
    const std::uint64_t users = options.num_users;
    const std::uint64_t most = options.num_items / 2;
    const std::uint64_t fewest = std::min({kFewestRows, options.num_interactions / users, most});
    std::vector<double> weights(users);
    double total = 0.0;
    for (double& weight : weights) total += weight = 1.0 / (0.1 + random.uniform());

    std::vector<std::uint32_t> counts(users);
    const auto rest = static_cast<double>(options.num_interactions - fewest * users);
    std::uint64_t left = options.num_interactions;
    for (std::size_t user = 0; user < users; ++user) {
        const auto share = static_cast<std::uint64_t>(rest * (weights[user] / total));
        counts[user] = static_cast<std::uint32_t>(std::min(fewest + share, most));
        left -= std::min<std::uint64_t>(left, counts[user]);
    }
    while (left > 0) {
        for (std::size_t user = 0; user < users && left > 0; ++user) {
            if (counts[user] >= most) continue;
            ++counts[user];
            --left;
        }
    }
    return counts;
}

class CsvWriter {
  public:
    explicit CsvWriter(std::FILE* output) : output_(output) {
        buffer_.reserve(kBlockBytes + 128);
        buffer_ = "user,item,rating,timestamp\n";
    }
    void write(std::uint32_t user, std::uint32_t item, int half_stars, std::int64_t timestamp) {
        append(user);
        buffer_ += ',';
        append(item);
        buffer_ += ',';
        append(half_stars / 2);
        buffer_ += half_stars % 2 == 0 ? ".0," : ".5,";
        append(timestamp);
        buffer_ += '\n';
    }
    [[nodiscard]] bool is_full() const { return buffer_.size() >= kBlockBytes; }
    void flush() {
        if (std::fwrite(buffer_.data(), 1, buffer_.size(), output_) != buffer_.size() ||
            std::fflush(output_) != 0)
            throw Error(Exit::kInputOutput,
                        fmt::format("output cannot be written: {}", std::strerror(errno)));
        buffer_.clear();
    }

  private:
    template <class T>
    void append(T number) {
        const fmt::format_int text(number);
        buffer_.append(text.data(), text.size());
    }

    std::FILE* output_;
    std::string buffer_;
};

// The items of one user, by place, none twice. `taken` says for every place which user took it last
// and is kept from user to user.
void draw_items(const Catalogue& catalogue, std::uint32_t user_id, std::uint32_t count,
                std::uint32_t favourite, std::uint32_t second, SplitMix64& random,
                std::vector<std::uint32_t>& taken, std::vector<std::uint32_t>& places) {
    places.clear();
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint32_t place = catalogue.draw(favourite, second, random);
        for (int tries = 1; taken[place] == user_id && tries < kMaxTries; ++tries)
            place = catalogue.draw(favourite, second, random);
        // A user who has seen nearly all of the liked items goes on with the next popular one.
        while (taken[place] == user_id) place = (place + 1) % catalogue.size();
        taken[place] = user_id;
        places.push_back(place);
    }
    // Popular items come early in such a series; in the order of time they are spread evenly.
    for (std::uint32_t i = count; i > 1; --i) std::swap(places[i - 1], places[random.below(i)]);
}

int draw_half_stars(std::uint32_t group, std::uint32_t favourite, std::uint32_t second,
                    SplitMix64& random) {
    const int liking = group == favourite ? 8 : group == second ? 7 : 5;
    return std::clamp(liking - 2 + static_cast<int>(random.below(5)), 2, 10);
}

}  // namespace

void generate(const GenerateOptions& options, std::FILE* output) {
    check(options);
    SplitMix64 random(options.seed);
    const Catalogue catalogue(options, random);
    const std::vector<std::uint32_t> counts = share_out(options, random);

    CsvWriter writer(output);
    std::vector<std::uint32_t> taken(options.num_items, 0);
    std::vector<std::uint32_t> places;
    std::int64_t timestamp = kFirstTimestamp;
    std::uint64_t rows = 0;
    for (std::uint32_t user = 0; user < options.num_users; ++user) {
        const std::uint32_t user_id = user + 1;
        const std::uint32_t favourite = random.below(options.rank);
        const std::uint32_t second = random.below(options.rank);
        draw_items(catalogue, user_id, counts[user], favourite, second, random, taken, places);
        for (const std::uint32_t place : places) {
            timestamp += 1 + random.below(60);
            writer.write(user_id, catalogue.id(place),
                         draw_half_stars(catalogue.group(place), favourite, second, random),
                         timestamp);
            ++rows;
            if (!writer.is_full()) continue;
            writer.flush();
            if (options.on_block) options.on_block(rows);
        }
    }
    writer.flush();
    if (options.on_block) options.on_block(rows);
}

}  // namespace zxtool
