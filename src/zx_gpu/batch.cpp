// The recommender's own device operations: BPR updates and batched scores. The kernels are not
// given the tables' numbers of rows and cannot guard against an id out of range, so the ids are
// tested here; such a batch is refused without a record, and its caller computes it on the host.

#include "common/ids.hpp"
#include "common/module.hpp"
#include "zorvex.h"
#include "zx_engine/engine_state.hpp"
#include "zx_gpu/launch.hpp"

#include <initializer_list>

namespace {

constexpr zx::Module kModule{"src/zx_gpu"};
using zx::gpu::check_counts;
using zx::gpu::check_extents;
using zx::gpu::check_operands;
using zx::gpu::enqueue;
using zx::gpu::upload;

// A batch's ids on the device, for the length of a call: made in the order given, and released in
// the same order, not in reverse as locals would be.
class BatchIds {
  public:
    BatchIds(std::initializer_list<const std::uint32_t*> arrays, std::uint32_t count)
        : wanted_(arrays.size()) {
        for (const std::uint32_t* const ids : arrays) {
            const zx_buffer_t buffer = zx_buffer_create_with_data(
                ids, std::uint64_t{count} * sizeof(std::uint32_t), CL_MEM_READ_ONLY);
            if (!buffer) return;
            buffers_[made_++] = buffer;
        }
    }
    ~BatchIds() {
        for (std::size_t i = 0; i < made_; ++i) zx_buffer_release(buffers_[i]);
    }
    BatchIds(const BatchIds&) = delete;
    BatchIds& operator=(const BatchIds&) = delete;

    // False if OpenCL refused one of them.
    [[nodiscard]] bool complete() const { return made_ == wanted_; }
    [[nodiscard]] zx_buffer_t operator[](std::size_t index) const { return buffers_[index]; }

  private:
    zx_buffer_t buffers_[3] = {};
    std::size_t made_ = 0;
    std::size_t wanted_;
};

// The tables that a batch works on. The bias takes part only if it is given and wanted.
struct Tables {
    zx_tensor_t* users;
    zx_tensor_t* items;
    zx_tensor_t* bias;  // null when it takes no part
    bool reads_bias;    // what the kernel is told, also without a bias
    std::uint64_t d;

    Tables(zx_tensor_t* user_emb, zx_tensor_t* item_emb, zx_tensor_t* item_bias, bool use_bias)
        : users(user_emb),
          items(item_emb),
          bias(use_bias ? item_bias : nullptr),
          reads_bias(use_bias),
          d(user_emb->dims[1]) {}

    // Every row of an id within the tables lies within the buffers, and so does its bias: the
    // kernel reads and writes one for each item in whatever tensor stands in that place.
    [[nodiscard]] zx_status_t check(std::uint32_t batch) const {
        const zx_status_t status = check_counts({d, batch});
        if (status != ZX_OK) return status;
        const std::uint64_t num_items = items->dims[0];
        return check_extents({{users, users->dims[0] * d},
                              {items, num_items * d},
                              {bias_argument(), reads_bias ? num_items : 0}});
    }

    [[nodiscard]] zx_status_t upload_all() const {
        const zx_status_t status = upload({users, items});
        return status == ZX_OK && bias ? upload({bias}) : status;
    }

    // The kernel's bias argument: the item table stands in for a bias that takes no part.
    [[nodiscard]] const zx_tensor_t* bias_argument() const { return bias ? bias : items; }

    void mark_resident() const {
        users->on_device = 1;
        items->on_device = 1;
        if (bias) bias->on_device = 1;
    }
};

}  // namespace

zx_status_t zx_gpu_bpr_update(zx_tensor_t* user_vec, zx_tensor_t* pos_vec, zx_tensor_t* neg_vec,
                              float lr, float reg) {
    zx_status_t status = check_operands({user_vec, pos_vec, neg_vec});
    if (status != ZX_OK) return status;
    const std::uint64_t d = user_vec->size;
    if ((status = check_counts({d})) != ZX_OK) return status;
    if ((status = check_extents({{pos_vec, d}, {neg_vec, d}})) != ZX_OK) return status;

    if ((status = upload({user_vec, pos_vec, neg_vec})) != ZX_OK) return status;
    const bool enqueued =
        enqueue(zx::kBprGradientUpdate, {user_vec, pos_vec, neg_vec, lr, reg, d}, {d});
    return enqueued ? ZX_OK : ZX_ERR_KERNEL_EXEC;
}

zx_status_t zx_gpu_bpr_batch_update(zx_tensor_t* user_emb, zx_tensor_t* item_emb,
                                    zx_tensor_t* item_bias, const uint32_t* users,
                                    const uint32_t* pos_items, const uint32_t* neg_items,
                                    uint32_t batch, bool use_bias, float lr, float reg) {
    zx_status_t status = check_operands({user_emb, item_emb});
    if (status != ZX_OK) return status;
    if (!pos_items || !neg_items || !users)
        return kModule.fail(ZX_ERR_NULL_POINTER, "NULL batch arrays");
    const Tables tables(user_emb, item_emb, item_bias, use_bias);
    if ((status = tables.check(batch)) != ZX_OK) return status;
    if (!zx::all_below(users, batch, user_emb->dims[0]) ||
        !zx::all_below(pos_items, batch, item_emb->dims[0]) ||
        !zx::all_below(neg_items, batch, item_emb->dims[0]))
        return ZX_ERR_INDEX_OUT_OF_BOUNDS;

    if ((status = tables.upload_all()) != ZX_OK) return status;
    const BatchIds ids({users, pos_items, neg_items}, batch);
    if (!ids.complete()) return ZX_ERR_ALLOCATION_FAILED;

    const bool enqueued =
        enqueue(zx::kBprBatchUpdate,
                {user_emb, item_emb, tables.bias_argument(), ids[0], ids[1], ids[2], lr, reg,
                 tables.d, std::uint64_t{batch}, std::uint64_t{use_bias}},
                {batch});
    (void)clFinish(zx::g_engine.queue);
    tables.mark_resident();
    return enqueued ? ZX_OK : ZX_ERR_KERNEL_EXEC;
}

zx_status_t zx_gpu_batched_score(zx_tensor_t* user_emb, zx_tensor_t* item_emb,
                                 zx_tensor_t* item_bias, const uint32_t* users,
                                 const uint32_t* items, zx_tensor_t* scores, uint32_t batch,
                                 bool use_bias) {
    zx_status_t status = check_operands({user_emb, item_emb, scores});
    if (status != ZX_OK) return status;
    if (!users || !items) return kModule.fail(ZX_ERR_NULL_POINTER, "NULL batch arrays");
    const Tables tables(user_emb, item_emb, item_bias, use_bias);
    if ((status = tables.check(batch)) != ZX_OK) return status;
    if ((status = check_extents({{scores, batch}})) != ZX_OK) return status;
    if (!zx::all_below(users, batch, user_emb->dims[0]) ||
        !zx::all_below(items, batch, item_emb->dims[0]))
        return ZX_ERR_INDEX_OUT_OF_BOUNDS;

    if ((status = tables.upload_all()) != ZX_OK) return status;
    if ((status = upload({scores})) != ZX_OK) return status;
    const BatchIds ids({users, items}, batch);
    if (!ids.complete()) return ZX_ERR_ALLOCATION_FAILED;

    const bool enqueued = enqueue(zx::kBatchedScore,
                                  {user_emb, item_emb, tables.bias_argument(), ids[0], ids[1],
                                   scores, tables.d, std::uint64_t{batch}, std::uint64_t{use_bias}},
                                  {batch});
    (void)clFinish(zx::g_engine.queue);
    status = zx_tensor_to_host(scores);
    if (status != ZX_OK) return status;
    return enqueued ? ZX_OK : ZX_ERR_KERNEL_EXEC;
}
