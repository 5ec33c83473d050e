// Entries of JSON objects, and lists of whole numbers such as a tensor's shape.
#pragma once

#include <algorithm>
#include <nlohmann/json.hpp>

namespace zxtool {

inline bool is_list_of_numbers(const nlohmann::json* list) {
    return list != nullptr && list->is_array() &&
           std::all_of(list->begin(), list->end(),
                       [](const nlohmann::json& number) { return number.is_number_unsigned(); });
}

// An entry of an object; null if there is no such entry or no object. It is not copied: a copy
// calls itself for each level of what it copies, and files may nest as deep as they are long.
inline const nlohmann::json* entry_of(const nlohmann::json* object, const char* key) {
    if (object == nullptr || !object->is_object()) return nullptr;
    const auto found = object->find(key);
    return found == object->end() ? nullptr : &*found;
}

}  // namespace zxtool
