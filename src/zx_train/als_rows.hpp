// The half of an ALS epoch: solving rows of one side against the other side's whole table.
//
// Rows are independent, and the arithmetic of a row does not depend on which rows are solved with
// it, so any split of the rows over workers gives the same bytes. There is no state between rows;
// scratch is handed in.
#pragma once

#include "common/owned.hpp"

#include <cstdint>

namespace zx::als {

// Matrices of d x d systems are stored with padded rows: d columns, one for the right-hand side,
// and zeros up to whole vectors.
std::uint64_t padded_stride(std::uint32_t d);

// The side held fixed: its embedding rows and their Gram matrix with the regularised diagonal.
struct FixedSide {
    const float* table;  // rows of d floats
    std::uint32_t d;     // embedding dimension
    const float* gram;   // [d x padded_stride(d)]
};

// The interactions of the side to solve: the entries of row r stand at starts[r] to starts[r + 1].
struct Entries {
    const std::uint32_t* starts;
    const std::uint32_t* ids;  // rows of the fixed side's table
    const float* strengths;
};

// Scratch for one worker.
class Workspace {
  public:
    // False if memory is short or d is 0.
    [[nodiscard]] bool allocate(std::uint32_t d);

    float* system() { return block_.get(); }  // [d x stride] matrix and right-hand side
    float* right_hand_side() { return right_hand_side_; }  // [stride]
    float* panel() { return panel_; }                      // [kPanelRows x stride] gathered rows
    float* scaled_panel() { return scaled_panel_; }        // the same, times their weights

    static constexpr std::uint32_t kPanelRows = 64;  // the two panels of d = 64 take 40 KiB

  private:
    AlignedPtr<float[]> block_;
    float* right_hand_side_ = nullptr;
    float* panel_ = nullptr;
    float* scaled_panel_ = nullptr;
};

// Fills `gram` with the sum of y y' over all rows y of a table, in row order, plus the
// regularisation on the diagonal.
void fill_gram(const float* table, std::uint32_t rows, std::uint32_t d, float regularization,
               Workspace& workspace, float* gram);

// Solves rows first to last - 1 and writes them into `solved`, a table of d columns.
void solve_rows(std::uint32_t first, std::uint32_t last, const Entries& entries,
                const FixedSide& fixed, float alpha, Workspace& workspace, float* solved);

}  // namespace zx::als
