// A row of ALS as it is defined: its d x d system, solved by Gauss-Jordan elimination.
#pragma once

#include "common/owned.hpp"
#include "zx_train/als_side.hpp"

namespace zx::als {

class Elimination {
  public:
    // False if memory is short or d is 0.
    [[nodiscard]] bool allocate(std::uint32_t d);

    // Writes the d numbers of the row's solution.
    void solve(const FixedSide& fixed, const Row& row, float* solution);

  private:
    void add_panel(const FixedSide& fixed, const Row& row, std::uint32_t first, std::uint32_t last);
    [[nodiscard]] std::uint32_t pivot_row(std::uint32_t k) const;
    void eliminate();

    std::uint32_t d_ = 0;
    std::uint64_t stride_ = 0;          // of the system: d columns and one for the right-hand side
    AlignedPtr<float[]> block_;         // the four below
    float* system_ = nullptr;           // [padded(d) x stride]
    float* right_hand_side_ = nullptr;  // [stride]
    float* panel_ = nullptr;            // [kPanelRows x padded(d)] gathered rows
    float* scaled_panel_ = nullptr;     // the same, times their weights
};

}  // namespace zx::als
