#include "held_out.hpp"

#include <fmt/format.h>

namespace zxtool {
namespace {

constexpr std::size_t kSomeUsers = 10000;

ItemLists lists_of(const Dataset& data, const Pairs& pairs) {
    std::vector<std::uint32_t> users;
    std::vector<std::uint32_t> items;
    for (const auto& [user, item] : pairs) {
        users.push_back(user);
        items.push_back(item);
    }
    return {data.users.size(), users, items};
}

}  // namespace

HeldOut::HeldOut(const Dataset& data, std::uint32_t k, unsigned num_threads)
    : k_(k),
      num_threads_(num_threads),
      held_out_(lists_of(data, data.test)),
      popularity_(data.items.size(), data.train_items) {
    if (data.test.empty()) return;
    train_ = ItemLists(data.users.size(), data.train_users, data.train_items);
    for (std::uint32_t user = 0; user < data.users.size(); ++user)
        if (!held_out_.of(user).empty()) users_.push_back(user);
    const std::size_t some = std::min(kSomeUsers, users_.size());
    for (std::size_t i = 0; i < some; ++i) some_users_.push_back(users_[i * users_.size() / some]);
}

Figures HeldOut::measure(const zx_model_t& model) const {
    return rank_users([&model] { return model_scorer(model); }, users_, train_, held_out_,
                      std::span(&k_, 1), num_threads_);
}

Figures HeldOut::measure_some(const zx_model_t& model) const {
    return rank_users([&model] { return model_scorer(model); }, some_users_, train_, held_out_,
                      std::span(&k_, 1), num_threads_);
}

Figures HeldOut::measure_popularity() const {
    return rank_users([this] { return popularity_.scorer(); }, users_, train_, held_out_,
                      std::span(&k_, 1), num_threads_);
}

std::string held_out_text(const Figures& figures) {
    const FiguresAtK at = figures.averages().front();
    return fmt::format("hit rate@{0} {1:.4f}  recall@{0} {2:.4f}  NDCG@{0} {3:.4f}", at.k,
                       at.hit_rate, at.recall, at.ndcg);
}

}  // namespace zxtool
