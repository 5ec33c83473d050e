// Measuring a model on held-out pairs, and showing the figures.
#pragma once

#include "metrics.hpp"
#include "output.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zxtool {

// Figures of one group of test users, or pairs, beside those of the popularity ranking.
struct GroupFigures {
    std::string name;  // "trained", "untrained", "all"
    Figures model;
    std::optional<Figures> popularity;
};

struct SampledHitRate {
    std::uint32_t k = 0;
    float hit_rate = 0.0f;
};

struct Evaluation {
    std::vector<GroupFigures> full;       // over all items that are not excluded
    std::vector<SampledHitRate> sampled;  // of the library's metric
    std::optional<GroupFigures> listed;   // over given lists of negatives
};

// A row for each figure: metric, K, kind of evaluation, group, model, popularity.
void write_table(const Evaluation& evaluation, Output& output);
Json evaluation_json(const Evaluation& evaluation);

// Averages of full rankings: the AUC and a list with an entry for each K.
Json figures_json(const Figures& figures);

}  // namespace zxtool
