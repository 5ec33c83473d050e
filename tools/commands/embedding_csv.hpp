// A model's tables as text, with the ids that they belong to.
#pragma once

#include "atomic_file.hpp"
#include "id_map.hpp"
#include "zorvex.h"

#include <string_view>

namespace zxtool {

// CSV with a heading: an id, its embedding as columns 0 to d - 1 and, unless `biases` is null, its
// bias. Numbers read back as the same 32-bit number. `what` heads the column of ids.
void write_embeddings(std::string_view what, const IdMap& ids, const zx_tensor_t& embeddings,
                      const zx_tensor_t* biases, AtomicFile& file);

// CSV with a heading: the ids in the order of their rows.
void write_ids(std::string_view what, const IdMap& ids, AtomicFile& file);

}  // namespace zxtool
