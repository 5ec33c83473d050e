// The half of an ALS epoch: solving rows of one side against the other side's whole table.
//
// Rows are independent, and the arithmetic of a row does not depend on which rows are solved with
// it, so any split of the rows over workers gives the same bytes. There is no state between rows;
// each worker has a HalfEpoch of its own.
#pragma once

#include "common/owned.hpp"
#include "zx_train/als_elimination.hpp"
#include "zx_train/als_positive.hpp"
#include "zx_train/als_side.hpp"

#include <cstdint>

namespace zx::als {

// The interactions of the side to solve: the entries of row r stand at starts[r] to starts[r + 1].
struct Entries {
    const std::uint32_t* starts;
    const std::uint32_t* ids;  // rows of the fixed side's table
    const float* strengths;
};

class HalfEpoch {
  public:
    // Memory for sides of up to so many rows of d floats; false if it is short or d is 0.
    [[nodiscard]] bool allocate(std::uint32_t d, std::uint32_t max_rows, float regularization);

    // Holds a side fixed: the sum of y y' over all rows y of its table, in row order, plus the
    // regularisation on the diagonal, and what follows from it.
    void fix(const float* table, std::uint32_t rows);

    // Solves rows first to last - 1 and writes them into `solved`, a table of d columns.
    void solve(std::uint32_t first, std::uint32_t last, const Entries& entries, float alpha,
               float* solved);

  private:
    void fill_gram();
    void solve_batch(const Row* rows, float** solutions, std::uint32_t count);

    FixedSide fixed_ = {};
    bool has_systems_ = false;
    AlignedPtr<float[]> gram_;   // [padded(d) x padded(d)]
    AlignedPtr<float[]> panel_;  // [kPanelRows x padded(d)]
    Elimination elimination_;
    PositiveSystems systems_;
};

}  // namespace zx::als
