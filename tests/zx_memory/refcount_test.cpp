// References to tensors and sparse matrices, taken and dropped by one thread and by many. That the
// last release frees everything shows under a leak checker.

#include "error_record.hpp"
#include "owned.hpp"
#include "zorvex.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

using zx::test::SparsePtr;
using zx::test::TensorPtr;

TEST(References, AreCounted) {
    zx_tensor_t* tensor = zx_tensor_create_1d(3);
    ASSERT_NE(tensor, nullptr);
    EXPECT_EQ(zx_tensor_retain(tensor), tensor);
    EXPECT_EQ(zx_tensor_retain(tensor), tensor);
    EXPECT_EQ(tensor->refcount, 3U);
    zx_tensor_release(tensor);
    EXPECT_EQ(tensor->refcount, 2U);
    tensor->data[2] = 5.0f;
    zx_tensor_release(tensor);
    EXPECT_EQ(tensor->refcount, 1U);
    EXPECT_EQ(tensor->data[2], 5.0f);
    zx_tensor_release(tensor);

    zx_sparse_t* matrix = zx_sparse_create(2, 2, 1);
    ASSERT_NE(matrix, nullptr);
    EXPECT_EQ(zx_sparse_retain(matrix), matrix);
    EXPECT_EQ(matrix->refcount, 2U);
    zx_sparse_release(matrix);
    EXPECT_EQ(matrix->refcount, 1U);
    matrix->values[0] = 1.0f;
    zx_sparse_release(matrix);
}

TEST(References, ToNothingStayNothing) {
    zx::test::plant_record();
    EXPECT_EQ(zx_tensor_retain(nullptr), nullptr);
    zx_tensor_release(nullptr);
    EXPECT_EQ(zx_sparse_retain(nullptr), nullptr);
    zx_sparse_release(nullptr);
    zx::test::expect_untouched();
}

TEST(References, AreTakenAndDroppedByManyThreads) {
    const TensorPtr tensor(zx_tensor_create_1d(3));
    const SparsePtr matrix(zx_sparse_create(2, 2, 1));
    constexpr int kThreads = 4;
    constexpr int kRounds = 300000;
    std::atomic<int> waiting = kThreads;  // all begin at the same time
    std::vector<std::thread> threads(kThreads);
    for (std::thread& thread : threads)
        thread = std::thread([&] {
            for (--waiting; waiting > 0;) std::this_thread::yield();
            for (int round = 0; round < kRounds; ++round) {
                (void)zx_tensor_retain(tensor.get());
                (void)zx_sparse_retain(matrix.get());
                zx_tensor_release(tensor.get());
                zx_sparse_release(matrix.get());
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(tensor->refcount, 1U);
    EXPECT_EQ(matrix->refcount, 1U);
}

TEST(References, MayBeDroppedLastByAnyThread) {
    for (int round = 0; round < 200; ++round) {
        zx_tensor_t* tensor = zx_tensor_create_1d(3);
        zx_sparse_t* matrix = zx_sparse_create(2, 2, 1);
        ASSERT_TRUE(tensor && matrix);
        std::vector<std::thread> threads(3);
        for (std::thread& thread : threads) {
            (void)zx_tensor_retain(tensor);
            (void)zx_sparse_retain(matrix);
            thread = std::thread([tensor, matrix] {
                zx_tensor_release(tensor);
                zx_sparse_release(matrix);
            });
        }
        zx_tensor_release(tensor);
        zx_sparse_release(matrix);
        for (std::thread& thread : threads) thread.join();
    }
}

}  // namespace
