#include "evaluation.hpp"

#include <array>
#include <fmt/format.h>

namespace zxtool {
namespace {

struct Metric {
    const char* name;
    double FiguresAtK::*value;
};
constexpr std::array kMetrics{
    Metric{"hit_rate", &FiguresAtK::hit_rate}, Metric{"precision", &FiguresAtK::precision},
    Metric{"recall", &FiguresAtK::recall},     Metric{"map", &FiguresAtK::map},
    Metric{"ndcg", &FiguresAtK::ndcg},
};
// With one held-out item, the others say no more than these two.
constexpr std::array kListedMetrics{kMetrics[0], kMetrics[4]};

std::string figure_text(double value) {
    return fmt::format("{:.6f}", value);
}

template <typename Metrics>
void add_rows(const char* kind, const GroupFigures& group, const Metrics& metrics, Table& table) {
    const std::vector<FiguresAtK> model = group.model.averages();
    const std::vector<FiguresAtK> popularity =
        group.popularity ? group.popularity->averages() : std::vector<FiguresAtK>();
    for (std::size_t i = 0; i < model.size(); ++i) {
        for (const Metric& metric : metrics)
            table.add({kind, group.name, metric.name, std::to_string(model[i].k),
                       figure_text(model[i].*metric.value),
                       popularity.empty() ? "" : figure_text(popularity[i].*metric.value)});
    }
}

template <typename Metrics>
Json at_json(const Figures& figures, const Metrics& metrics) {
    Json list = Json::array();
    for (const FiguresAtK& at : figures.averages()) {
        Json entry{{"k", at.k}};
        for (const Metric& metric : metrics) entry[metric.name] = at.*metric.value;
        list.push_back(entry);
    }
    return list;
}

}  // namespace

Json figures_json(const Figures& figures) {
    return {{"auc", figures.auc()}, {"at", at_json(figures, kMetrics)}};
}

void write_table(const Evaluation& evaluation, Output& output) {
    Table table({{"evaluation"},
                 {"group"},
                 {"metric"},
                 {"k", true},
                 {"model", true},
                 {"popularity", true}});
    for (const GroupFigures& group : evaluation.full) {
        table.add({"full", group.name, "users", "", std::to_string(group.model.users()), ""});
        add_rows("full", group, kMetrics, table);
        table.add({"full", group.name, "auc", "", figure_text(group.model.auc()),
                   group.popularity ? figure_text(group.popularity->auc()) : ""});
    }
    for (const SampledHitRate& at : evaluation.sampled)
        table.add(
            {"sampled", "pairs", "hit_rate", std::to_string(at.k), figure_text(at.hit_rate), ""});
    if (evaluation.listed) {
        const GroupFigures& group = *evaluation.listed;
        table.add({"listed", group.name, "pairs", "", std::to_string(group.model.users()), ""});
        add_rows("listed", group, kListedMetrics, table);
    }
    table.write_to(output);
}

Json evaluation_json(const Evaluation& evaluation) {
    Json result = Json::object();
    for (const GroupFigures& group : evaluation.full) {
        Json entry{{"group", group.name},
                   {"users", group.model.users()},
                   {"model", figures_json(group.model)}};
        if (group.popularity) entry["popularity"] = figures_json(*group.popularity);
        result["full"].push_back(entry);
    }
    for (const SampledHitRate& at : evaluation.sampled)
        result["sampled"].push_back({{"k", at.k}, {"hit_rate", json_number(at.hit_rate)}});
    if (evaluation.listed) {
        const GroupFigures& group = *evaluation.listed;
        result["listed"] = {{"pairs", group.model.users()},
                            {"model", {{"at", at_json(group.model, kListedMetrics)}}}};
        if (group.popularity)
            result["listed"]["popularity"] = {{"at", at_json(*group.popularity, kListedMetrics)}};
    }
    return result;
}

}  // namespace zxtool
