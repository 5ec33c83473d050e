// The recommender's operations on a device: what they compute, and what they ask of OpenCL.

#include "batch_device.hpp"

#include "zx_gpu/kernel_table.hpp"

#include <string>

namespace zx::test {
namespace {

constexpr cl_mem_flags kTableFlags = CL_MEM_READ_WRITE | CL_MEM_COPY_HOST_PTR;
constexpr cl_mem_flags kIdFlags = 36;  // read-only, copied from the host

TensorPtr vector_of(const std::vector<float>& values) {
    TensorPtr tensor(zx_tensor_create_1d(static_cast<std::uint32_t>(values.size())));
    if (tensor) fill(tensor.get(), values);
    return tensor;
}

// Takes a kernel away for the length of a scope, as a kernel file without it would.
class WithoutKernel {
  public:
    explicit WithoutKernel(zx_kernel_id_t id) : id_(id), kernel_(g_kernels.kernels[id]) {
        g_kernels.kernels[id] = nullptr;
    }
    ~WithoutKernel() { g_kernels.kernels[id_] = kernel_; }
    WithoutKernel(const WithoutKernel&) = delete;
    WithoutKernel& operator=(const WithoutKernel&) = delete;

  private:
    zx_kernel_id_t id_;
    cl_kernel kernel_;
};

class BprUpdate : public BatchDeviceTest {};

TEST_F(BprUpdate, MovesThreeVectorsOfAnyLengthAsTheHostDoes) {
    RandomNumbers random(1);
    for (const std::size_t d : {1u, 2u, 3u, 63u, 64u, 65u, 100u, 513u, 4096u}) {
        // A difference between the scores of about 1, and repetitions for a late work-group.
        const double range = 1.5 / std::sqrt(std::sqrt(static_cast<double>(d)));
        for (int round = 0; round < (d < 4096 ? 2 : 20); ++round) {
            SCOPED_TRACE(testing::Message() << "d " << d << ", round " << round);
            std::vector<float> w = random.floats(d, -range, range);
            std::vector<float> p = random.floats(d, -range, range);
            std::vector<float> n = random.floats(d, -range, range);
            const TensorPtr user = vector_of(w);
            const TensorPtr positive = vector_of(p);
            const TensorPtr negative = vector_of(n);
            ASSERT_TRUE(user && positive && negative);
            opencl() = {};
            ASSERT_EQ(zx_gpu_bpr_update(user.get(), positive.get(), negative.get(), 0.5f, 0.1f),
                      ZX_OK);
            EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{d}, {}, false, false}}));
            EXPECT_EQ(opencl().count("clFinish"), 0);
            EXPECT_TRUE(opencl().transfers.empty());
            const double x = exact_dot(w.data(), p.data(), d) - exact_dot(w.data(), n.data(), d);
            bpr_passes(w.data(), p.data(), n.data(), d, 0.95f, bpr_factor(x, 0.5f), true);
            for (zx_tensor_t* tensor : {user.get(), positive.get(), negative.get()}) {
                EXPECT_EQ(tensor->on_device, 1);
                ASSERT_EQ(zx_tensor_to_host(tensor), ZX_OK);
            }
            EXPECT_TRUE(near_numbers(contents(user.get()), w));
            EXPECT_TRUE(near_numbers(contents(positive.get()), p));
            EXPECT_TRUE(near_numbers(contents(negative.get()), n));
        }
    }
    expect_untouched();
}

TEST_F(BprUpdate, TakesOneTensorInSeveralPlacesAsTheStatementsInOrder) {
    struct Case {
        const char* what;
        int places[3];  // the tensor of the user, the positive and the negative
    };
    const Case cases[] = {{"positive is negative", {0, 1, 1}},
                          {"user is positive", {0, 0, 1}},
                          {"user is negative", {0, 1, 0}},
                          {"all are one", {0, 0, 0}}};
    RandomNumbers random(2);
    for (const Case& c : cases) {
        for (const std::size_t d : {1u, 3u, 65u, 513u}) {
            SCOPED_TRACE(testing::Message() << c.what << ", d " << d);
            const double range = 1.5 / std::sqrt(std::sqrt(static_cast<double>(d)));
            std::vector<float> rows[2] = {random.floats(d, -range, range),
                                          random.floats(d, -range, range)};
            const TensorPtr tensors[2] = {vector_of(rows[0]), vector_of(rows[1])};
            ASSERT_TRUE(tensors[0] && tensors[1]);
            float* const w = rows[c.places[0]].data();
            float* const p = rows[c.places[1]].data();
            float* const n = rows[c.places[2]].data();
            ASSERT_EQ(zx_gpu_bpr_update(tensors[c.places[0]].get(), tensors[c.places[1]].get(),
                                        tensors[c.places[2]].get(), 0.5f, 0.1f),
                      ZX_OK);
            const double x = exact_dot(w, p, d) - exact_dot(w, n, d);
            bpr_passes(w, p, n, d, 0.95f, bpr_factor(x, 0.5f), true);
            for (const int t : {0, 1}) {
                if (tensors[t]->on_device) {
                    ASSERT_EQ(zx_tensor_to_host(tensors[t].get()), ZX_OK);
                }
                EXPECT_TRUE(near_numbers(contents(tensors[t].get()), rows[t])) << "tensor " << t;
            }
        }
    }
}

TEST_F(BprUpdate, CutsTheStepOffBeyond35) {
    struct Case {
        std::vector<float> user, positive, negative;
        std::vector<float> new_user, new_positive, new_negative;
    };
    // The regularisation is 0.5 and the step size 1: rows are halved, then moved by 0 or by 1.
    const Case cases[] = {
        {{8, 2}, {8, 0}, {2, 1}, {4, 1}, {4, 0}, {1, 0.5f}},        // difference 46
        {{8, 2}, {2, 1}, {8, 0}, {-2, 2}, {9, 2.5f}, {-4, -2}},     // difference -46
        {{1, 0}, {100, 4}, {0, 2}, {0.5f, 0}, {50, 2}, {0, 1}},     // difference 100
        {{1, 0}, {0, 2}, {100, 4}, {-99.5f, -2}, {1, 1}, {49, 2}},  // difference -100
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.new_user));
        const TensorPtr user = vector_of(c.user);
        const TensorPtr positive = vector_of(c.positive);
        const TensorPtr negative = vector_of(c.negative);
        ASSERT_TRUE(user && positive && negative);
        ASSERT_EQ(zx_gpu_bpr_update(user.get(), positive.get(), negative.get(), 1.0f, 0.5f), ZX_OK);
        for (zx_tensor_t* tensor : {user.get(), positive.get(), negative.get()})
            ASSERT_EQ(zx_tensor_to_host(tensor), ZX_OK);
        EXPECT_EQ(contents(user.get()), c.new_user);
        EXPECT_EQ(contents(positive.get()), c.new_positive);
        EXPECT_EQ(contents(negative.get()), c.new_negative);
    }
}

TEST_F(BprUpdate, ReportsARefusedLaunchWithoutARecord) {
    const TensorPtr row = vector_of({1, 2, 3});
    ASSERT_NE(row, nullptr);
    opencl().refused = {"clEnqueueNDRangeKernel"};
    EXPECT_EQ(zx_gpu_bpr_update(row.get(), row.get(), row.get(), 1, 0), ZX_ERR_KERNEL_EXEC);
    EXPECT_EQ(row->on_device, 1);
    opencl() = {};
    const WithoutKernel without(kBprGradientUpdate);
    EXPECT_EQ(zx_gpu_bpr_update(row.get(), row.get(), row.get(), 1, 0), ZX_ERR_KERNEL_EXEC);
    expect_untouched();
}

TEST_F(BprUpdate, ReportsARefusedUploadOfEachVector) {
    for (const int refused : {1, 2, 3}) {
        const TensorPtr rows[3] = {vector_of({1}), vector_of({2}), vector_of({3})};
        opencl() = {};
        opencl().refused_once["clCreateBuffer"] = refused;
        EXPECT_EQ(zx_gpu_bpr_update(rows[0].get(), rows[1].get(), rows[2].get(), 1, 0),
                  ZX_ERR_BUFFER_CREATE);
        EXPECT_EQ(opencl().count("clCreateBuffer"), refused);
        EXPECT_TRUE(opencl().launches.empty());
    }
    expect_untouched();
}

class BprBatch : public BatchDeviceTest {};

TEST_F(BprBatch, MovesDisjointRowsAsTheHostDoes) {
    // Where rows are longer than 512, batches from 256 on: smaller ones differ on the host.
    const struct {
        std::uint32_t batch, d;
    } shapes[] = {{1, 64},  {24, 1},    {24, 3},   {24, 64}, {24, 100}, {37, 511},
                  {2, 512}, {257, 513}, {512, 17}, {513, 8}, {5003, 3}};
    for (const auto& [batch, d] : shapes) {
        const Triples triples = disjoint_triples(batch);
        for (const bool biased : {false, true}) {
            SCOPED_TRACE(testing::Message() << batch << " x " << d << (biased ? ", biased" : ""));
            const ModelPtr model = disjoint_model(batch, d, biased);
            const ModelPtr expected = disjoint_model(batch, d, biased);
            ASSERT_TRUE(model && expected);
            opencl() = {};
            ASSERT_EQ(update_batch(model.get(), triples, 0.05f, 0.1f), ZX_OK);
            std::vector<BufferRequest> buffers = {{kTableFlags, 4ull * batch * d, true},
                                                  {kTableFlags, 8ull * batch * d, true}};
            if (biased) buffers.push_back({kTableFlags, 8ull * batch, true});
            buffers.insert(buffers.end(), 3, {kIdFlags, 4ull * batch, true});
            EXPECT_EQ(opencl().buffers, buffers);
            EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{batch}, {}, false, false}}));
            EXPECT_EQ(opencl().count("clFinish"), 1);
            EXPECT_EQ(opencl().count("clReleaseMemObject"), 3);
            EXPECT_TRUE(opencl().transfers.empty());
            EXPECT_EQ(model->user_embeddings->on_device, 1);
            EXPECT_EQ(model->item_embeddings->on_device, 1);
            bring_back(model.get());
            train_on_host(expected.get(), triples, 0.05f, 0.1f);
            EXPECT_TRUE(near_models(model.get(), expected.get()));
            // The update is large enough to be seen.
            EXPECT_FALSE(near_models(disjoint_model(batch, d, biased).get(), expected.get()));
        }
    }
    expect_untouched();
}

TEST_F(BprBatch, TakesOneRowInSeveralPlacesAsTheStatementsInOrder) {
    constexpr std::uint32_t kDim = 6;  // four elements at once, and a tail
    // One table for users and items; no row is in two triples.
    Triples triples;
    triples.add(0, 1, 1);
    triples.add(2, 2, 3);
    triples.add(4, 5, 4);
    triples.add(6, 6, 6);
    RandomNumbers random(7);
    std::vector<float> rows = random.floats(std::size_t{7} * kDim, -1.0, 1.0);
    const TensorPtr table(zx_tensor_create_2d(7, kDim));
    ASSERT_NE(table, nullptr);
    fill(table.get(), rows);
    ASSERT_EQ(zx_gpu_bpr_batch_update(table.get(), table.get(), nullptr, triples.users.data(),
                                      triples.positives.data(), triples.negatives.data(),
                                      triples.count(), false, 0.5f, 0.1f),
              ZX_OK);
    ASSERT_EQ(zx_tensor_to_host(table.get()), ZX_OK);
    for (std::size_t i = 0; i < triples.users.size(); ++i) {
        float* const w = rows.data() + std::size_t{triples.users[i]} * kDim;
        float* const p = rows.data() + std::size_t{triples.positives[i]} * kDim;
        float* const n = rows.data() + std::size_t{triples.negatives[i]} * kDim;
        const double x = exact_dot(w, p, kDim) - exact_dot(w, n, kDim);
        bpr_passes(w, p, n, kDim, 0.95f, bpr_factor(x, 0.5f), true);
    }
    EXPECT_TRUE(near_numbers(contents(table.get()), rows));
}

TEST_F(BprBatch, LosesAtMostUpdatesWhereTriplesShareRows) {
    constexpr std::uint32_t kBatch = 32;
    Triples triples;
    for (std::uint32_t i = 0; i < kBatch; ++i) triples.add(i % 3, i % 5, 5 + i % 7);
    const ModelPtr model = disjoint_model(kBatch, 6, true);
    ASSERT_NE(model, nullptr);
    const ModelContents before = contents(model.get());
    ASSERT_EQ(update_batch(model.get(), triples, 0.05f, 0.1f), ZX_OK);
    bring_back(model.get());
    const ModelContents after = contents(model.get());
    // Whatever is lost, rows in the batch move a little, and the others not at all.
    const auto expect_moved = [](const std::vector<float>& now, const std::vector<float>& old,
                                 std::size_t in_batch) {
        for (std::size_t i = 0; i < now.size(); ++i) {
            EXPECT_LT(std::fabs(now[i] - old[i]), 1.0f) << i;
            EXPECT_EQ(now[i] != old[i], i < in_batch) << i;
        }
    };
    expect_moved(after.users, before.users, std::size_t{3} * 6);
    expect_moved(after.items, before.items, std::size_t{12} * 6);
    expect_moved(after.item_biases, before.item_biases, 12);
}

TEST_F(BprBatch, LeavesAnUnwantedBiasAlone) {
    const Triples triples = disjoint_triples(24);
    const ModelPtr model = disjoint_model(24, 3, true);
    ASSERT_NE(model, nullptr);
    const std::vector<float> biases = contents(model->item_biases);
    model->use_bias = 0;
    ASSERT_EQ(update_batch(model.get(), triples, 0.05f, 0.1f), ZX_OK);
    model->use_bias = 1;
    EXPECT_EQ(model->item_biases->device_buffer, nullptr);
    EXPECT_EQ(model->item_biases->on_device, 0);
    EXPECT_EQ(contents(model->item_biases), biases);
}

TEST_F(BprBatch, AcceptsAWantedBiasThatIsNull) {
    const Triples triples = disjoint_triples(24);
    const ModelPtr model = disjoint_model(24, 3, false);
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(zx_gpu_bpr_batch_update(model->user_embeddings, model->item_embeddings, nullptr,
                                      triples.users.data(), triples.positives.data(),
                                      triples.negatives.data(), 24, true, 0.05f, 0.1f),
              ZX_OK);
    EXPECT_EQ(opencl().buffers.size(), 5u);
    expect_untouched();
}

TEST_F(BprBatch, ReleasesWhatItMadeWhenABufferIsRefused) {
    const Triples triples = disjoint_triples(24);
    for (const int refused : {1, 2, 3, 4, 5, 6}) {
        SCOPED_TRACE(refused);
        const ModelPtr model = disjoint_model(24, 3, true);
        ASSERT_NE(model, nullptr);
        const ModelContents before = contents(model.get());
        opencl() = {};
        opencl().refused_once["clCreateBuffer"] = refused;
        // The first three are the tables'.
        EXPECT_EQ(update_batch(model.get(), triples, 0.05f, 0.1f), refused <= 3 ? 208 : 101);
        EXPECT_EQ(opencl().count("clCreateBuffer"), refused);
        EXPECT_EQ(opencl().count("clReleaseMemObject"), refused <= 3 ? 0 : refused - 4);
        EXPECT_TRUE(opencl().launches.empty());
        EXPECT_EQ(opencl().count("clFinish"), 0);
        bring_back(model.get());
        EXPECT_EQ(contents(model.get()).users, before.users);
    }
    expect_untouched();
}

TEST_F(BprBatch, WaitsAndMarksTheTablesEvenWhenTheLaunchIsRefused) {
    const Triples triples = disjoint_triples(24);
    for (const bool missing : {false, true}) {
        SCOPED_TRACE(missing);
        const ModelPtr model = disjoint_model(24, 3, true);
        ASSERT_NE(model, nullptr);
        opencl() = {};
        if (missing) {
            const WithoutKernel without(kBprBatchUpdate);
            EXPECT_EQ(update_batch(model.get(), triples, 0.05f, 0.1f), ZX_ERR_KERNEL_EXEC);
        } else {
            opencl().refused = {"clEnqueueNDRangeKernel"};
            EXPECT_EQ(update_batch(model.get(), triples, 0.05f, 0.1f), ZX_ERR_KERNEL_EXEC);
        }
        EXPECT_EQ(opencl().count("clFinish"), 1);
        EXPECT_EQ(opencl().count("clReleaseMemObject"), 3);
        EXPECT_EQ(model->user_embeddings->on_device, 1);
        EXPECT_EQ(model->item_embeddings->on_device, 1);
        EXPECT_EQ(model->item_biases->on_device, 1);
    }
    expect_untouched();
}

TEST_F(BprBatch, RefusesABatchOfNoneWithoutARecord) {
    const Triples triples = disjoint_triples(24);
    const ModelPtr model = disjoint_model(24, 3, true);
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(zx_gpu_bpr_batch_update(model->user_embeddings, model->item_embeddings, nullptr,
                                      triples.users.data(), triples.positives.data(),
                                      triples.negatives.data(), 0, false, 0.05f, 0.1f),
              ZX_ERR_ALLOCATION_FAILED);
    EXPECT_EQ(opencl().buffers.back(), (BufferRequest{kIdFlags, 0, true}));
    EXPECT_TRUE(opencl().launches.empty());
    expect_untouched();
}

class BatchedScore : public BatchDeviceTest {
  protected:
    static zx_status_t score(zx_model_t* model, const Ids& users, const Ids& items,
                             zx_tensor_t* scores) {
        return zx_gpu_batched_score(model->user_embeddings, model->item_embeddings,
                                    model->item_biases, users.data(), items.data(), scores,
                                    static_cast<std::uint32_t>(users.size()), model->use_bias != 0);
    }

    const Ids users_ = {0, 3, 23, 3, 7};
    const Ids items_ = {47, 0, 9, 9, 30};
};

TEST_F(BatchedScore, GivesDotsAndItemBiases) {
    for (const std::uint32_t d : {1u, 3u, 64u, 100u}) {
        for (const bool biased : {false, true}) {
            SCOPED_TRACE(testing::Message() << "d " << d << (biased ? ", biased" : ""));
            const ModelPtr model = disjoint_model(24, d, biased);
            // One element more than the batch, which stays as it is.
            const TensorPtr scores = vector_of({0, 0, 0, 0, 0, 77});
            ASSERT_TRUE(model && scores);
            opencl() = {};
            ASSERT_EQ(score(model.get(), users_, items_, scores.get()), ZX_OK);
            std::vector<BufferRequest> buffers = {{kTableFlags, 96ull * d, true},
                                                  {kTableFlags, 192ull * d, true}};
            if (biased) buffers.push_back({kTableFlags, 192, true});
            buffers.insert(buffers.end(),
                           {{kTableFlags, 24, true}, {kIdFlags, 20, true}, {kIdFlags, 20, true}});
            EXPECT_EQ(opencl().buffers, buffers);
            EXPECT_EQ(opencl().launches, (std::vector<Launch>{{{5}, {}, false, false}}));
            EXPECT_EQ(opencl().transfers, (std::vector<Transfer>{{false, true, 0, 24, false}}));
            EXPECT_EQ(opencl().count("clFinish"), 1);
            EXPECT_EQ(opencl().count("clReleaseMemObject"), 2);
            EXPECT_EQ(scores->on_device, 0);
            EXPECT_EQ(model->user_embeddings->on_device, 1);
            EXPECT_EQ(model->item_embeddings->on_device, 1);
            std::vector<float> expected;
            for (std::size_t j = 0; j < users_.size(); ++j) {
                double sum = exact_dot(user_row(*model, users_[j]), item_row(*model, items_[j]), d);
                if (biased) sum += model->item_biases->data[items_[j]];
                expected.push_back(static_cast<float>(sum));
            }
            expected.push_back(77);
            EXPECT_TRUE(near_numbers(contents(scores.get()), expected));
            // The tables stay on the device: the next call uploads the scores and the ids only.
            opencl() = {};
            ASSERT_EQ(score(model.get(), users_, items_, scores.get()), ZX_OK);
            EXPECT_EQ(opencl().buffers.size(), 2u);
            EXPECT_EQ(opencl().transfers, (std::vector<Transfer>{{true, true, 0, 24, false},
                                                                 {false, true, 0, 24, false}}));
            EXPECT_TRUE(near_numbers(contents(scores.get()), expected));
        }
    }
    expect_untouched();
}

TEST_F(BatchedScore, GivesTheDotsOfManyPairsAndLongRows) {
    const struct {
        std::uint32_t batch, d;
    } shapes[] = {{1, 513}, {7, 5003}, {511, 31}, {512, 512}, {513, 1}, {5003, 17}};
    RandomNumbers random(8);
    for (const auto& [batch, d] : shapes) {
        SCOPED_TRACE(testing::Message() << batch << " x " << d);
        const ModelPtr model = disjoint_model(24, d, true);
        const Ids users = random.ids(batch, 24);
        const Ids items = random.ids(batch, 48);
        const TensorPtr scores = vector_of(std::vector<float>(batch));
        ASSERT_TRUE(model && scores);
        ASSERT_EQ(score(model.get(), users, items, scores.get()), ZX_OK);
        // The rounding errors of a sum grow with the sizes of what is summed, not of the sum.
        for (std::size_t j = 0; j < batch; ++j) {
            const double sum =
                exact_dot(user_row(*model, users[j]), item_row(*model, items[j]), d) +
                double{model->item_biases->data[items[j]]};
            ASSERT_NEAR(double{scores->data[j]}, sum, 1e-5 * std::sqrt(static_cast<double>(d)))
                << j;
        }
    }
    expect_untouched();
}

TEST_F(BatchedScore, TakesTheItemTableForAWantedBiasThatIsNull) {
    const ModelPtr model = disjoint_model(24, 3, false);
    const TensorPtr scores = vector_of({0, 0, 0, 0, 0});
    ASSERT_TRUE(model && scores);
    ASSERT_EQ(zx_gpu_batched_score(model->user_embeddings, model->item_embeddings, nullptr,
                                   users_.data(), items_.data(), scores.get(), 5, true),
              ZX_OK);
    EXPECT_EQ(opencl().buffers.size(), 5u);
    std::vector<float> expected;
    for (std::size_t j = 0; j < users_.size(); ++j)
        expected.push_back(static_cast<float>(
            exact_dot(user_row(*model, users_[j]), item_row(*model, items_[j]), 3) +
            model->item_embeddings->data[items_[j]]));
    EXPECT_TRUE(near_numbers(contents(scores.get()), expected));
    expect_untouched();
}

TEST_F(BatchedScore, ReleasesWhatItMadeWhenABufferIsRefused) {
    for (const int refused : {1, 2, 3, 4, 5, 6}) {
        SCOPED_TRACE(refused);
        const ModelPtr model = disjoint_model(24, 3, true);
        const TensorPtr scores = vector_of({1, 2, 3, 4, 5});
        ASSERT_TRUE(model && scores);
        opencl() = {};
        opencl().refused_once["clCreateBuffer"] = refused;
        // The first four are the tables' and the scores'.
        EXPECT_EQ(score(model.get(), users_, items_, scores.get()), refused <= 4 ? 208 : 101);
        EXPECT_EQ(opencl().count("clCreateBuffer"), refused);
        EXPECT_EQ(opencl().count("clReleaseMemObject"), refused <= 4 ? 0 : refused - 5);
        EXPECT_TRUE(opencl().launches.empty());
        EXPECT_EQ(contents(scores.get()), (std::vector<float>{1, 2, 3, 4, 5}));
    }
    expect_untouched();
}

TEST_F(BatchedScore, WaitsAndCopiesBackEvenWhenTheLaunchIsRefused) {
    const ModelPtr model = disjoint_model(24, 3, true);
    const TensorPtr scores = vector_of({1, 2, 3, 4, 5});
    ASSERT_TRUE(model && scores);
    opencl().refused = {"clEnqueueNDRangeKernel"};
    EXPECT_EQ(score(model.get(), users_, items_, scores.get()), ZX_ERR_KERNEL_EXEC);
    EXPECT_EQ(opencl().only({"clFinish", "clEnqueueReadBuffer", "clReleaseMemObject"}),
              (std::vector<std::string>{"clFinish", "clEnqueueReadBuffer", "clReleaseMemObject",
                                        "clReleaseMemObject"}));
    EXPECT_EQ(model->user_embeddings->on_device, 1);
    EXPECT_EQ(model->item_embeddings->on_device, 1);
    EXPECT_EQ(model->item_biases->on_device, 1);
    opencl() = {};
    const WithoutKernel without(kBatchedScore);
    EXPECT_EQ(score(model.get(), users_, items_, scores.get()), ZX_ERR_KERNEL_EXEC);
    expect_untouched();
}

TEST_F(BatchedScore, ReportsAFailedCopyBackBeforeARefusedLaunch) {
    for (const bool launch_refused : {false, true}) {
        SCOPED_TRACE(launch_refused);
        const ModelPtr model = disjoint_model(24, 3, true);
        const TensorPtr scores = vector_of({1, 2, 3, 4, 5});
        ASSERT_TRUE(model && scores);
        forget();
        opencl().refused = {"clEnqueueReadBuffer"};
        if (launch_refused) opencl().refused.insert("clEnqueueNDRangeKernel");
        EXPECT_EQ(score(model.get(), users_, items_, scores.get()), ZX_ERR_TRANSFER);
        expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
        EXPECT_EQ(opencl().count("clReleaseMemObject"), 2);
        EXPECT_EQ(scores->on_device, 1);
    }
}

TEST_F(BatchedScore, RefusesABatchOfNoneWithoutARecord) {
    const ModelPtr model = disjoint_model(24, 3, true);
    const TensorPtr scores = vector_of({1});
    ASSERT_TRUE(model && scores);
    EXPECT_EQ(
        zx_gpu_batched_score(model->user_embeddings, model->item_embeddings, model->item_biases,
                             users_.data(), items_.data(), scores.get(), 0, true),
        ZX_ERR_ALLOCATION_FAILED);
    EXPECT_TRUE(opencl().launches.empty());
    expect_untouched();
}

// The three operations, each with its result when a call is refused.
struct SweptOperation {
    const char* name;
    int tables;  // buffers of tensors, which are made first
    zx_status_t (*call)(zx_model_t* model, const Triples& triples, zx_tensor_t* scores);
};

const SweptOperation kSweptOperations[] = {
    {"a single update", 3,
     [](zx_model_t* model, const Triples&, zx_tensor_t* scores) {
         // Any three tensors of a length serve.
         return zx_gpu_bpr_update(scores, model->user_biases, model->item_biases, 0.5f, 0.1f);
     }},
    {"a batch of updates", 3,
     [](zx_model_t* model, const Triples& triples, zx_tensor_t*) {
         return update_batch(model, triples, 0.05f, 0.1f);
     }},
    {"a batch of scores", 4,
     [](zx_model_t* model, const Triples& triples, zx_tensor_t* scores) {
         return zx_gpu_batched_score(model->user_embeddings, model->item_embeddings,
                                     model->item_biases, triples.users.data(),
                                     triples.positives.data(), scores, triples.count(), true);
     }},
};

zx_status_t expected_after(const SweptOperation& operation, const NumberedCall& refused) {
    const auto& [call, number] = refused;
    if (call == "clCreateBuffer")
        return number <= operation.tables ? ZX_ERR_BUFFER_CREATE : ZX_ERR_ALLOCATION_FAILED;
    if (call == "clSetKernelArg" || call == "clEnqueueNDRangeKernel") return ZX_ERR_KERNEL_EXEC;
    return call == "clEnqueueReadBuffer" ? ZX_ERR_TRANSFER : ZX_OK;
}

using BatchOperations = BatchDeviceTest;

TEST_F(BatchOperations, FailAsStatedWhicheverCallIsRefusedAndLeaveNothing) {
    const Triples triples = disjoint_triples(24);
    for (const SweptOperation& operation : kSweptOperations) {
        std::vector<NumberedCall> calls = {{"", 0}};
        // The first round refuses nothing and finds the calls of the others.
        for (std::size_t round = 0; round < calls.size(); ++round) {
            const NumberedCall refused = calls[round];
            SCOPED_TRACE(testing::Message()
                         << operation.name << " " << refused.first << " " << refused.second);
            const OpenClObjects before = opencl_objects();
            {
                const ModelPtr model = disjoint_model(24, 3, true);
                const TensorPtr scores = vector_of(std::vector<float>(24, 0.5f));
                ASSERT_TRUE(model && scores);
                forget();
                opencl().refused_once.insert(refused);
                EXPECT_EQ(operation.call(model.get(), triples, scores.get()),
                          expected_after(operation, refused));
                const std::vector<NumberedCall> made = opencl().numbered();
                if (round == 0) calls.insert(calls.end(), made.begin(), made.end());
                if (refused.first == "clEnqueueReadBuffer")
                    expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
                else
                    expect_untouched();
                opencl() = {};
                EXPECT_EQ(operation.call(model.get(), triples, scores.get()), ZX_OK);
            }
            EXPECT_EQ(release_objects_since(before).size(),
                      refused.first == "clReleaseMemObject" ? 1u : 0u);
        }
        EXPECT_GT(calls.size(), 10u);
    }
}

TEST_F(BatchOperations, ReleaseTheIdsInTheOrderOfTheirMaking) {
    const Triples triples = disjoint_triples(24);
    const struct {
        const SweptOperation& operation;
        std::vector<const void*> ids;
    } cases[] = {
        {kSweptOperations[1],
         {triples.users.data(), triples.positives.data(), triples.negatives.data()}},
        {kSweptOperations[2], {triples.users.data(), triples.positives.data()}},
    };
    for (const auto& [operation, ids] : cases) {
        for (const bool refused : {false, true}) {
            SCOPED_TRACE(testing::Message() << operation.name << (refused ? ", refused" : ""));
            const ModelPtr model = disjoint_model(24, 3, true);
            const TensorPtr scores = vector_of(std::vector<float>(24, 0.5f));
            ASSERT_TRUE(model && scores);
            opencl() = {};
            if (refused) opencl().refused = {"clEnqueueNDRangeKernel"};
            EXPECT_EQ(operation.call(model.get(), triples, scores.get()),
                      refused ? ZX_ERR_KERNEL_EXEC : ZX_OK);
            std::vector<const void*> released;
            for (const cl_mem buffer : opencl().released_buffers)
                released.push_back(
                    std::ranges::find(opencl().made_buffers, buffer, &MadeBuffer::buffer)->host);
            EXPECT_EQ(released, ids);
        }
    }
}

}  // namespace
}  // namespace zx::test
