// A model file and its ids file (MODEL.zxm.ids), which belong together.
//
// The ids file carries the size and a hash of its model, so that a pair that does not belong
// together is noticed. Replacing a pair takes three renames: the new ids to MODEL.zxm.ids.new, the
// new model over the old, the new ids over the old. A reader takes whichever of the two ids files
// belongs to the model it finds, so at every moment either the old or the new pair is readable.
#pragma once

#include "id_map.hpp"
#include "zorvex.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zxtool {

struct ModelRelease {
    void operator()(zx_model_t* model) const { zx_model_release(model); }
};
using ModelPtr = std::unique_ptr<zx_model_t, ModelRelease>;

struct StoredModel {
    ModelPtr model;
    bool has_ids = false;  // without an ids file the ids are the plain numbers, filled in here
    IdMap users;
    IdMap items;
    std::uint64_t file_bytes = 0;
};

// Writes both files as described above. Throws Error(kInputOutput) or Error(kOutOfMemory); the old
// pair is then still readable.
void save_model(const zx_model_t& model, const IdMap& users, const IdMap& items,
                const std::string& path);

// Loads a model and its ids. Throws Error(kBadModel) for a file that is no model or lacks a part of
// one, for ids that do
// not belong to it or do not have its numbers of users and items; Error(kInputOutput) when a file
// cannot be read; Error(kOutOfMemory).
StoredModel load_model(const std::string& path);

// The same for a file that is what the library writes, to the byte: Error(kBadModel) names the
// offset of the first fault. `on_block` is called between blocks of the file and may be empty.
// Throws Error(kInputOutput) if what was checked is not what was loaded.
StoredModel load_checked_model(const std::string& path, const std::function<void()>& on_block);

// The files that load_model() may read, and those that save_model() may write.
std::vector<std::string> model_inputs(const std::string& path);
std::vector<std::string> model_outputs(const std::string& path);

// A second record over the same tensors, with scratch of its own: one for each thread.
ModelPtr light_copy(const zx_model_t& model);

}  // namespace zxtool
