#include "negatives.hpp"

#include "line_reader.hpp"
#include "parallel.hpp"
#include "quote.hpp"
#include "signals.hpp"

#include <algorithm>
#include <optional>
#include <string_view>
#include <unordered_set>

namespace zxtool {
namespace {

constexpr std::size_t kPairsPerBlock = 256;

// Takes the next word off a line; empty at its end.
std::string_view next_word(std::string_view& line) {
    constexpr std::string_view kWhite = " \t";
    const std::size_t begin = std::min(line.find_first_not_of(kWhite), line.size());
    const std::size_t end = std::min(line.find_first_of(kWhite, begin), line.size());
    const std::string_view word = line.substr(begin, end - begin);
    line.remove_prefix(end);
    return word;
}

struct PairIds {
    std::string_view user;
    std::string_view item;
};

// The pair that a line begins with: "(user,item)" as one word, or two words.
PairIds take_pair(std::string_view& line, const LineReader& reader) {
    const std::string_view first = next_word(line);
    const std::size_t comma = first.find(',');
    if (first.starts_with('(') && first.ends_with(')') && comma != std::string_view::npos)
        return {first.substr(1, comma - 1), first.substr(comma + 1, first.size() - comma - 2)};
    const std::string_view second = next_word(line);
    if (second.empty())
        reader.refuse(
            "expected \"user item negative ...\" or \"(user,item) negative ...\", found " +
            quote(first));
    return {first, second};
}

// Counts ids that a model does not know, each once.
class UnknownCounter {
  public:
    explicit UnknownCounter(UnknownIds& unknown) : unknown_(unknown) {}
    void user(std::string_view id) { count(id, users_, unknown_.users, unknown_.first_user); }
    void item(std::string_view id) { count(id, items_, unknown_.items, unknown_.first_item); }

  private:
    using Seen = std::unordered_set<std::string>;
    static void count(std::string_view id, Seen& seen, std::uint64_t& number, std::string& first) {
        if (!seen.emplace(id).second) return;
        if (number++ == 0) first = id;
    }

    UnknownIds& unknown_;
    Seen users_;
    Seen items_;
};

}  // namespace

std::span<const std::uint32_t> ListedPairs::negatives_of(std::size_t pair) const {
    const std::size_t begin = pair == 0 ? 0 : ends[pair - 1];
    return std::span(negatives).subspan(begin, ends[pair] - begin);
}

ListedPairs read_negatives(const std::string& path, const IdMap& users, const IdMap& items,
                           const std::function<void(std::uint64_t)>& on_block,
                           UnknownIds& unknown) {
    LineReader reader(path, on_block);
    UnknownCounter counter(unknown);
    ListedPairs result;
    std::vector<std::uint32_t> list;
    for (std::string_view line; reader.next(line);) {
        if (line.find_first_not_of(" \t") == std::string_view::npos) continue;
        const PairIds pair = take_pair(line, reader);
        const std::optional<std::uint32_t> user = users.find(pair.user);
        const std::optional<std::uint32_t> item = items.find(pair.item);
        if (!user) counter.user(pair.user);
        if (!item) counter.item(pair.item);

        list.clear();
        bool any = false;
        for (std::string_view id = next_word(line); !id.empty(); id = next_word(line)) {
            any = true;
            const std::optional<std::uint32_t> negative = items.find(id);
            if (!negative) {
                counter.item(id);
            } else if (negative != item) {
                list.push_back(*negative);
            }
        }
        if (!any) reader.refuse("expected at least one negative behind the pair, found none");
        if (!user || !item) {
            ++unknown.rows;
            continue;
        }
        std::sort(list.begin(), list.end());
        list.erase(std::unique(list.begin(), list.end()), list.end());
        result.users.push_back(*user);
        result.items.push_back(*item);
        result.negatives.insert(result.negatives.end(), list.begin(), list.end());
        result.ends.push_back(result.negatives.size());
    }
    return result;
}

Figures rank_listed(const MakeScorer& make_scorer, const ListedPairs& pairs,
                    std::span<const std::uint32_t> ks, unsigned num_threads) {
    struct Worker {
        std::unique_ptr<Scorer> scorer;
        std::vector<std::uint32_t> list;
    };
    std::vector<Worker> workers(num_threads);
    std::vector<Figures> blocks(block_count(pairs.size(), kPairsPerBlock), Figures(ks));
    for_each_block(pairs.size(), kPairsPerBlock, num_threads, [&](unsigned w, const Block& block) {
        stop_if_interrupted();
        Worker& worker = workers[w];
        if (!worker.scorer) worker.scorer = make_scorer();
        for (std::size_t i = block.begin; i < block.end; ++i) {
            const std::span<const std::uint32_t> negatives = pairs.negatives_of(i);
            worker.list.assign(negatives.begin(), negatives.end());
            worker.list.push_back(pairs.items[i]);
            const std::span<const float> scores =
                worker.scorer->scores_of(pairs.users[i], worker.list);
            std::uint32_t place = 1;
            for (std::size_t n = 0; n < negatives.size(); ++n)
                if (ranks_before(scores[n], negatives[n], scores.back(), pairs.items[i])) ++place;
            blocks[block.index].add_user(std::span(&place, 1), -1.0);
        }
    });
    Figures total(ks);
    for (const Figures& block : blocks) total.add(block);
    return total;
}

}  // namespace zxtool
