// Ranking metrics, computed from the places that a user's held-out items take in a full ranking.
//
// With R the user's held-out items, and "top K" the first K places of the ranking:
//   hit rate@K   1 if any of R is in the top K, else 0
//   precision@K  |R in the top K| / K
//   recall@K     |R in the top K| / |R|
//   MAP@K        the sum of precision@r over the places r <= K that hold one of R, / min(K, |R|)
//   NDCG@K       the sum of 1 / log2(r + 1) over the same places, / its largest possible value
//   AUC          the share of (held-out, other) pairs of items in the right order, ties half
// Each is then averaged over users. Järvelin, Kekäläinen, "Cumulated gain-based evaluation of IR
// techniques", TOIS 2002, with gain 0 or 1, for NDCG; Rendle et al., "BPR", UAI 2009, for AUC.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace zxtool {

struct FiguresAtK {
    std::uint32_t k = 0;
    double hit_rate = 0.0;
    double precision = 0.0;
    double recall = 0.0;
    double map = 0.0;
    double ndcg = 0.0;
};

// One user's figures. `places` are those of the held-out items, counted from 1, ascending, without
// repeats and not empty; k is not 0.
FiguresAtK figures_at(std::span<const std::uint32_t> places, std::uint32_t k);

// Figures of a group of users: sums while users are added, then averages.
class Figures {
  public:
    explicit Figures(std::span<const std::uint32_t> ks);

    // `auc` is negative where there is none, which is when every candidate is held out.
    void add_user(std::span<const std::uint32_t> places, double auc);
    void add(const Figures& other);

    [[nodiscard]] std::uint64_t users() const { return users_; }
    // Averages, in the order of the ks; all 0 without users.
    [[nodiscard]] std::vector<FiguresAtK> averages() const;
    // The average over the users who have one; 0 without such users.
    [[nodiscard]] double auc() const;

  private:
    std::vector<FiguresAtK> sums_;
    double auc_sum_ = 0.0;
    std::uint64_t users_ = 0;
    std::uint64_t auc_users_ = 0;
};

}  // namespace zxtool
