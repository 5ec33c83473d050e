// Matrix Market coordinate files: a row of the matrix is a user, a column an item.
// Format: Boisvert, Pozo, Remington, "The Matrix Market Exchange Formats", NISTIR 5935, 1996.
#pragma once

#include "line_reader.hpp"
#include "row_sink.hpp"

namespace zxtool {

// Reads a general coordinate matrix of real, integer or pattern entries. The ids are the numbers of
// rows and columns, from 1. Throws Error(kBadInput), also for a number of entries that is not the
// one in the file's head.
void read_matrix_market(LineReader& reader, RowSink& sink);

}  // namespace zxtool
