// Interactions with a known structure: users and items have hidden factors, and a user interacts
// with the items whose factors suit, some noise and some popularity added. What is held out of
// each user's items can only be found by learning the factors.
#pragma once

#include "random_numbers.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace zx::test {

struct LowRankData {
    std::uint32_t num_users = 0;
    std::uint32_t num_items = 0;
    std::vector<std::vector<std::uint32_t>> training;  // items of each user, increasing
    std::vector<std::vector<std::uint32_t>> held_out;
};

inline LowRankData low_rank_data(std::uint32_t num_users, std::uint32_t num_items,
                                 std::uint32_t items_per_user, std::uint32_t held_out_per_user,
                                 std::uint64_t seed) {
    constexpr std::size_t kRank = 4;
    constexpr double kNoise = 0.5;
    constexpr double kPopularity = 0.5;
    RandomNumbers random(seed);
    // The sum of a few uniform numbers is near enough to a normal one.
    const auto normal = [&random] {
        double sum = 0.0;
        for (int i = 0; i < 12; ++i) sum += random.between(-0.5, 0.5);
        return sum;
    };
    std::vector<double> user_factors(num_users * kRank);
    std::vector<double> item_factors(num_items * kRank);
    std::vector<double> popularity(num_items);
    for (double& factor : user_factors) factor = normal();
    for (double& factor : item_factors) factor = normal();
    for (double& offset : popularity) offset = kPopularity * normal();

    LowRankData data;
    data.num_users = num_users;
    data.num_items = num_items;
    for (std::uint32_t user = 0; user < num_users; ++user) {
        std::vector<std::pair<double, std::uint32_t>> affinities;
        for (std::uint32_t item = 0; item < num_items; ++item) {
            double affinity = popularity[item] + kNoise * normal();
            for (std::size_t k = 0; k < kRank; ++k)
                affinity += user_factors[user * kRank + k] * item_factors[item * kRank + k];
            affinities.emplace_back(-affinity, item);
        }
        std::sort(affinities.begin(), affinities.end());
        std::vector<std::uint32_t> chosen;
        for (std::uint32_t i = 0; i < items_per_user; ++i) chosen.push_back(affinities[i].second);
        for (std::uint32_t i = items_per_user; i > 1; --i)
            std::swap(chosen[i - 1], chosen[random.below(i)]);
        data.held_out.emplace_back(chosen.begin(), chosen.begin() + held_out_per_user);
        data.training.emplace_back(chosen.begin() + held_out_per_user, chosen.end());
        std::sort(data.training.back().begin(), data.training.back().end());
    }
    return data;
}

// Discounted gain of the held-out items among the first ten, against the best there could be.
inline double ndcg_at_10(const std::vector<std::uint32_t>& ranking,
                         const std::vector<std::uint32_t>& held_out) {
    double gain = 0.0;
    double best = 0.0;
    for (std::size_t place = 0; place < 10 && place < ranking.size(); ++place) {
        const double discount = 1.0 / std::log2(static_cast<double>(place) + 2.0);
        if (std::find(held_out.begin(), held_out.end(), ranking[place]) != held_out.end())
            gain += discount;
        if (place < held_out.size()) best += discount;
    }
    return gain / best;
}

}  // namespace zx::test
