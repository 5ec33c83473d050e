#include "metrics.hpp"

#include <algorithm>
#include <cmath>

namespace zxtool {
namespace {

double discount(std::size_t place) {
    return 1.0 / std::log2(static_cast<double>(place) + 1.0);
}

}  // namespace

FiguresAtK figures_at(std::span<const std::uint32_t> places, std::uint32_t k) {
    const std::size_t best_hits = std::min<std::size_t>(k, places.size());
    double hits = 0.0;
    double precisions = 0.0;
    double gain = 0.0;
    double best_gain = 0.0;
    for (std::size_t i = 0; i < best_hits; ++i) {
        best_gain += discount(i + 1);
        if (places[i] > k) continue;
        hits += 1.0;
        precisions += hits / places[i];
        gain += discount(places[i]);
    }
    return {.k = k,
            .hit_rate = hits > 0.0 ? 1.0 : 0.0,
            .precision = hits / k,
            .recall = hits / static_cast<double>(places.size()),
            .map = precisions / static_cast<double>(best_hits),
            .ndcg = gain / best_gain};
}

Figures::Figures(std::span<const std::uint32_t> ks) {
    for (const std::uint32_t k : ks) sums_.push_back({.k = k});
}

void Figures::add_user(std::span<const std::uint32_t> places, double auc) {
    for (FiguresAtK& sum : sums_) {
        const FiguresAtK one = figures_at(places, sum.k);
        sum.hit_rate += one.hit_rate;
        sum.precision += one.precision;
        sum.recall += one.recall;
        sum.map += one.map;
        sum.ndcg += one.ndcg;
    }
    ++users_;
    if (auc >= 0.0) {
        auc_sum_ += auc;
        ++auc_users_;
    }
}

void Figures::add(const Figures& other) {
    for (std::size_t i = 0; i < sums_.size(); ++i) {
        sums_[i].hit_rate += other.sums_[i].hit_rate;
        sums_[i].precision += other.sums_[i].precision;
        sums_[i].recall += other.sums_[i].recall;
        sums_[i].map += other.sums_[i].map;
        sums_[i].ndcg += other.sums_[i].ndcg;
    }
    users_ += other.users_;
    auc_sum_ += other.auc_sum_;
    auc_users_ += other.auc_users_;
}

std::vector<FiguresAtK> Figures::averages() const {
    std::vector<FiguresAtK> result = sums_;
    if (users_ == 0) return result;
    const auto n = static_cast<double>(users_);
    for (FiguresAtK& at : result) {
        at.hit_rate /= n;
        at.precision /= n;
        at.recall /= n;
        at.map /= n;
        at.ndcg /= n;
    }
    return result;
}

double Figures::auc() const {
    return auc_users_ == 0 ? 0.0 : auc_sum_ / static_cast<double>(auc_users_);
}

}  // namespace zxtool
