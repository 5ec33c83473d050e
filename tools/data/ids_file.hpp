// The ids file beside a model: whose row is whose.
//
// Little-endian throughout:
//   offset 0   8 bytes  "ZXMODIDS"
//          8   u32      version, 1
//         12   u32      number of users
//         16   u32      number of items
//         20   u32      0
//         24   u64      length of the model file in bytes
//         32   u64      XXH3 hash (64 bits, seed 0) of the whole model file
//         40            the ids of all users, then of all items: u32 length, then the bytes
//       last   u64      XXH3 hash of everything before it
// Of a whole file the last hash is checked first, so that a damaged one is refused before its ids
// are used. Whose ids they are is in the first bytes, so that others are not read at all.
#pragma once

#include "id_map.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zxtool {

// What tells a model file from another one.
struct ModelPrint {
    std::uint64_t bytes = 0;
    std::uint64_t hash = 0;
    bool operator==(const ModelPrint& other) const = default;
};

struct IdsFile {
    ModelPrint model;
    IdMap users;
    IdMap items;
};

// The contents of an ids file.
std::string format_ids(const ModelPrint& model, const IdMap& users, const IdMap& items);

// The bytes in front of the ids.
inline constexpr std::size_t kIdsHeadBytes = 40;

// The model that an ids file says it belongs to, from the first kIdsHeadBytes of its contents, any
// bytes. `name` is for the messages. Throws Error(kBadModel).
ModelPrint parse_ids_head(std::string_view start, const std::string& name);

// Parses the contents of an ids file, any bytes. `name` is for the messages. Throws
// Error(kBadModel).
IdsFile parse_ids(std::string_view contents, const std::string& name);

}  // namespace zxtool
