// What every command that uses a model reads: the model, and files that speak its ids.
#pragma once

#include "console.hpp"
#include "interactions.hpp"
#include "model_store.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zxtool {

// Loads a model that can rank: one with numbers that are not finite is refused as a bad model.
StoredModel open_model(const std::string& path, const Console& console);

// Reads interactions in the model's ids, without their ratings and timestamps, which are checked
// all the same. Rows with unknown ids are an Error(kBadInput) that names and counts them, unless
// `skip_unknown`; then they are counted on the console.
Interactions read_in_model_ids(const std::string& path, const ReadOptions& options,
                               const StoredModel& stored, bool skip_unknown,
                               const Console& console);

// That rule for a file read elsewise.
void settle_unknown(const UnknownIds& unknown, const std::string& path, bool skip_unknown,
                    const Console& console);

// The numbers of ids given on the command line, in their order, under the same rule. `what` is
// "user" or "item".
std::vector<std::uint32_t> numbers_of(const std::vector<std::string>& ids, const IdMap& map,
                                      std::string_view what, bool skip_unknown,
                                      const Console& console);

// A slip of the command line must not cost anyone a file: throws Error(kUsage) if one of the
// outputs is, by whatever name, one of the inputs or another output. Empty paths stand for none.
void refuse_overwriting(const std::vector<std::string>& outputs,
                        const std::vector<std::string>& inputs);

// Standard input can be read once: throws Error(kUsage) if two of the paths are "-".
void refuse_standard_input_twice(const std::vector<std::string>& paths);

}  // namespace zxtool
