// One ALS epoch written for reading, in any precision: the systems as the normal equations state
// them, and the elimination step by step. In double precision it says what the solution is, in
// single precision what the stated steps make of it, skipped pivots included.
#pragma once

#include "csr.hpp"

#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

namespace zx::test {

template <typename Real>
struct AlsTables {
    std::vector<Real> users;
    std::vector<Real> items;
    std::size_t dim = 0;
};

// Gauss-Jordan elimination with partial pivoting; b becomes the solution. Pivots below 1e-10 are
// skipped.
template <typename Real>
void gauss_jordan(std::vector<Real>& a, std::vector<Real>& b) {
    const std::size_t dim = b.size();
    for (std::size_t k = 0; k < dim; ++k) {
        std::size_t best = k;
        for (std::size_t r = k + 1; r < dim; ++r)
            if (std::abs(a[r * dim + k]) > std::abs(a[best * dim + k])) best = r;
        if (best != k) {
            for (std::size_t m = 0; m < dim; ++m) std::swap(a[k * dim + m], a[best * dim + m]);
            std::swap(b[k], b[best]);
        }
        const Real pivot = a[k * dim + k];
        if (std::abs(pivot) < Real(1e-10f)) continue;
        const Real reciprocal = Real(1) / pivot;
        for (std::size_t m = 0; m < dim; ++m) a[k * dim + m] *= reciprocal;
        b[k] /= pivot;
        for (std::size_t r = 0; r < dim; ++r) {
            if (r == k) continue;
            const Real factor = a[r * dim + k];
            for (std::size_t m = 0; m < dim; ++m) a[r * dim + m] -= a[k * dim + m] * factor;
            b[r] -= factor * b[k];
        }
    }
}

// A row's system: the fixed side's Gram matrix with the regularised diagonal, and for each entry
// its outer product by alpha * strength and its row by 1 + alpha * strength.
template <typename Real>
struct AlsSystem {
    std::vector<Real> a;
    std::vector<Real> b;
};

template <typename Real>
std::vector<Real> gram_of(const std::vector<Real>& table, std::size_t dim, Real regularization) {
    std::vector<Real> gram(dim * dim, Real(0));
    for (std::size_t row = 0; row < table.size(); row += dim)
        for (std::size_t k = 0; k < dim; ++k)
            for (std::size_t l = 0; l < dim; ++l)
                gram[k * dim + l] += table[row + k] * table[row + l];
    for (std::size_t k = 0; k < dim; ++k) gram[k * dim + k] += regularization;
    return gram;
}

template <typename Real>
AlsSystem<Real> als_system(const std::vector<Real>& gram, const std::vector<Real>& fixed,
                           std::size_t dim, const std::vector<Entry>& entries, Real alpha) {
    AlsSystem<Real> system{gram, std::vector<Real>(dim, Real(0))};
    for (const Entry& entry : entries) {
        const Real* const y = &fixed[std::size_t{entry.col} * dim];
        const Real weight = alpha * Real(entry.value);
        for (std::size_t k = 0; k < dim; ++k) {
            for (std::size_t l = 0; l < dim; ++l) system.a[k * dim + l] += (y[k] * weight) * y[l];
            system.b[k] += y[k] * (Real(1) + weight);
        }
    }
    return system;
}

// Solves every row of a side. Entries name the row to solve and, as their column, the fixed row.
template <typename Real>
void als_half(std::vector<Real>& solved, const std::vector<Real>& fixed, std::size_t dim,
              const std::vector<Entry>& entries, Real alpha, Real regularization) {
    const std::vector<Real> gram = gram_of(fixed, dim, regularization);
    std::vector<std::vector<Entry>> by_row(solved.size() / dim);
    for (const Entry& entry : entries) by_row[entry.row].push_back(entry);
    for (std::size_t row = 0; row < by_row.size(); ++row) {
        AlsSystem<Real> system = als_system(gram, fixed, dim, by_row[row], alpha);
        gauss_jordan(system.a, system.b);
        for (std::size_t k = 0; k < dim; ++k) solved[row * dim + k] = system.b[k];
    }
}

inline std::vector<Entry> transposed(std::vector<Entry> entries) {
    for (Entry& entry : entries) std::swap(entry.row, entry.col);
    return entries;
}

// The whole epoch. Entries must come in the order of their rows.
template <typename Real>
void als_epoch(AlsTables<Real>& tables, const std::vector<Entry>& entries, Real alpha,
               Real regularization) {
    als_half(tables.users, tables.items, tables.dim, entries, alpha, regularization);
    als_half(tables.items, tables.users, tables.dim, transposed(entries), alpha, regularization);
}

template <typename Real>
AlsTables<Real> als_tables(const zx_model_t& model) {
    AlsTables<Real> tables;
    const zx_tensor_t* const users = model.user_embeddings;
    const zx_tensor_t* const items = model.item_embeddings;
    tables.users.assign(users->data, users->data + users->size);
    tables.items.assign(items->data, items->data + items->size);
    tables.dim = model.embedding_dim;
    return tables;
}

}  // namespace zx::test
