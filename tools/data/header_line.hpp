// Whether the first line of a file names its columns.
#pragma once

#include "line_reader.hpp"
#include "split.hpp"

namespace zxtool {

// The rule: the first line is a header if its first two fields are names that data sets give the
// user and the item (in any case and spelling: userId, user_id, "User ID"), or if it has three
// fields or more and none of them is a number. So the first line of a file with two columns is data
// unless its names are known. Throws Error(kBadInput) for a header that names the columns in
// another order than user, item, rating, timestamp.
bool is_header(const Fields& fields, const LineReader& reader);

}  // namespace zxtool
