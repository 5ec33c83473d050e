// Lists of whole numbers in JSON, such as a tensor's shape.
#pragma once

#include <algorithm>
#include <nlohmann/json.hpp>

namespace zxtool {

inline bool is_list_of_numbers(const nlohmann::json& list) {
    return list.is_array() &&
           std::all_of(list.begin(), list.end(),
                       [](const nlohmann::json& number) { return number.is_number_unsigned(); });
}

// An entry of an object; null if it has none, or is none.
inline nlohmann::json entry_of(const nlohmann::json& object, const char* key) {
    return object.is_object() ? object.value(key, nlohmann::json()) : nlohmann::json();
}

}  // namespace zxtool
