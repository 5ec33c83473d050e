// Rows of ALS by positive definite systems of their own size, where these have the same solution as
// the elimination.
#pragma once

#include "common/owned.hpp"
#include "zx_train/als_side.hpp"

namespace zx::als {

class PositiveSystems {
  public:
    // Whether it can accept a row at all.
    static bool serves(float regularization);

    // Memory for sides of up to so many rows; false if it is short.
    [[nodiscard]] bool allocate(std::uint32_t d, std::uint32_t max_rows);

    // Takes over the fixed side.
    void prepare(const FixedSide& fixed);

    // Whether the row's solution is provably the elimination's.
    [[nodiscard]] bool accepts(const Row& row) const;

    // How many rows solve() takes at most.
    static constexpr std::uint32_t kBatchRows = 64;

    // Solves accepted rows that have entries: d numbers for each, to where `solutions` says. What
    // that says is set to null for a row that could not be solved after all.
    void solve(const Row* rows, std::uint32_t count, float** solutions);

  private:
    bool factorise(const FixedSide& fixed);
    void whiten(const FixedSide& fixed);
    [[nodiscard]] bool is_short(const Row& row) const;
    void fetch(const Row& row, std::uint32_t first) const;
    void gather_whitened(const Row& row, const float** rows) const;
    void gather(const Row& row, std::uint32_t first, std::uint32_t count);
    void build_short(const Row& row, simd::PositiveSystem& system);
    void build_long(const Row& row, simd::PositiveSystem& system);
    void combine(const Row& row, const simd::PositiveSystem& system, float* whitened);
    void solve_group(const Row* rows, std::uint32_t count, float** solutions, float* whitened);

    // How many systems are solved side by side, when they are small.
    static constexpr std::uint32_t kMaxGroup = 4;

    std::uint32_t d_ = 0;
    std::uint64_t stride_ = 0;
    std::uint32_t group_ = 1;
    FixedSide fixed_ = {};
    float largest_square_ = 0.0f;    // of the fixed table's numbers
    float largest_diagonal_ = 0.0f;  // of its Gram matrix; infinity when no row can be accepted
    float smallest_value_ = 0.0f;    // a lower bound of the Gram matrix's singular values

    AlignedPtr<double[]> factor_;      // [d x d] and a row
    AlignedPtr<const float*[]> rows_;  // gathered rows
    AlignedPtr<float[]> weights_;      // of their entries
    AlignedPtr<float[]> block_;        // the following, with rows of `stride_` floats
    float* zeros_ = nullptr;           // a row of zeros
    float* transform_ = nullptr;       // L^-T
    float* back_transform_ = nullptr;  // L^-1
    float* columns_ = nullptr;         // rows turned into columns
    float* panel_ = nullptr;           // kPanelRows rows
    float* padded_rows_ = nullptr;     // as many, followed by zeros up to whole vectors
    float* batch_ = nullptr;           // kBatchRows solutions before their transformation
    float* table_ = nullptr;           // the whitened table
    simd::PositiveSystem systems_[kMaxGroup] = {};
};

}  // namespace zx::als
