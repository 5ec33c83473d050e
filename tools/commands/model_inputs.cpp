#include "model_inputs.hpp"

#include "error.hpp"
#include "quote.hpp"
#include "trainer.hpp"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <system_error>

namespace zxtool {
namespace {

// "3 users (first "x")"
std::string count_text(std::uint64_t count, std::string_view what, const std::string& first) {
    return fmt::format("{} {}{} (first {})", count, what, count == 1 ? "" : "s", quote(first));
}

}  // namespace

StoredModel open_model(const std::string& path, const Console& console) {
    StoredModel stored = load_model(path);
    if (!all_finite(*stored.model))
        throw Error(Exit::kBadModel,
                    fmt::format("{}: the model holds numbers that are not finite", path));
    console.detail(fmt::format("{}: {} users, {} items, dimension {}{}", path,
                               stored.model->num_users, stored.model->num_items,
                               stored.model->embedding_dim,
                               stored.has_ids ? "" : ", no ids file: ids are plain numbers"));
    return stored;
}

Interactions read_in_model_ids(const std::string& path, const ReadOptions& options,
                               const StoredModel& stored, bool skip_unknown,
                               const Console& console) {
    ReadOptions pairs_only = options;
    pairs_only.wants_ratings = false;
    pairs_only.wants_timestamps = false;
    UnknownIds unknown;
    Interactions rows =
        read_known_interactions(path, pairs_only, stored.users, stored.items, unknown);
    settle_unknown(unknown, path, skip_unknown, console);
    console.detail(fmt::format("{}: {} rows", path, rows.size()));
    return rows;
}

void settle_unknown(const UnknownIds& unknown, const std::string& path, bool skip_unknown,
                    const Console& console) {
    if (unknown.users == 0 && unknown.items == 0) return;
    std::string ids;
    if (unknown.users != 0) ids = count_text(unknown.users, "user", unknown.first_user);
    if (unknown.users != 0 && unknown.items != 0) ids += " and ";
    if (unknown.items != 0) ids += count_text(unknown.items, "item", unknown.first_item);
    const std::string text = fmt::format("{}: the model does not know {}", path, ids);
    if (!skip_unknown)
        throw Error(Exit::kBadInput, text + "; --skip-unknown leaves their rows out");
    console.warn(
        fmt::format("{}; {} row{} left out", text, unknown.rows, unknown.rows == 1 ? "" : "s"));
}

std::vector<std::uint32_t> numbers_of(const std::vector<std::string>& ids, const IdMap& map,
                                      std::string_view what, bool skip_unknown,
                                      const Console& console) {
    constexpr std::size_t kNamed = 5;
    std::vector<std::uint32_t> numbers;
    std::string named;
    std::size_t unknown = 0;
    for (const std::string& id : ids) {
        if (const auto number = map.find(id)) {
            numbers.push_back(*number);
        } else if (++unknown <= kNamed) {
            named += (named.empty() ? "" : ", ") + quote(id);
        }
    }
    if (unknown == 0) return numbers;
    const std::string text =
        fmt::format("the model does not know {} {}{}: {}{}", unknown, what, unknown == 1 ? "" : "s",
                    named, unknown > kNamed ? ", ..." : "");
    if (!skip_unknown) throw Error(Exit::kBadInput, text + "; --skip-unknown leaves them out");
    console.warn(text);
    return numbers;
}

void refuse_overwriting(const std::vector<std::string>& outputs,
                        const std::vector<std::string>& inputs) {
    const auto same = [](const std::string& a, const std::string& b) {
        std::error_code none;  // a file that is not there is no other file
        return !a.empty() && (a == b || std::filesystem::equivalent(a, b, none));
    };
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        for (const std::string& input : inputs)
            if (same(outputs[i], input))
                throw Error(Exit::kUsage, fmt::format("{}: would overwrite the input", outputs[i]));
        for (std::size_t j = 0; j < i; ++j)
            if (same(outputs[i], outputs[j]))
                throw Error(Exit::kUsage, fmt::format("{}: is written twice", outputs[i]));
    }
}

void refuse_standard_input_twice(const std::vector<std::string>& paths) {
    if (std::count(paths.begin(), paths.end(), "-") > 1)
        throw Error(Exit::kUsage, "standard input, \"-\", can be read for one file only");
}

}  // namespace zxtool
