// The formats with a row or a user per line.
#pragma once

#include "interactions.hpp"
#include "line_reader.hpp"
#include "row_sink.hpp"

namespace zxtool {

// Reads rows of user,item[,rating[,timestamp]], all with as many columns as the first, in one of
// the four formats kCsv, kTsv, kSpace and kColons. Throws Error(kBadInput).
void read_columns(Format format, Header header, LineReader& reader, RowSink& sink);

// Reads lists of a user and its items, separated by white space; a user without items adds nothing.
void read_lists(Header header, LineReader& reader, RowSink& sink);

}  // namespace zxtool
