// What all device operations on tensors have in common: the order of their checks, what they
// upload and launch, where the result is, and what they say when something is refused.

#include "operation_table.hpp"
#include "operations_fixture.hpp"

#include <string>
#include <utility>

namespace {

using zx::test::BufferRequest;
using zx::test::contents;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::Launch;
using zx::test::NumberedCall;
using zx::test::opencl;
using zx::test::Operation;
using zx::test::plant_record;
using zx::test::RandomNumbers;
using zx::test::size_of;
using zx::test::tensor_of;
using zx::test::TensorPtr;

constexpr const char* kModule = "src/zx_gpu";
constexpr const char* kMisfit = "Tensor shapes do not fit";

// The tensors of one operation with random contents, and the call on them.
class Operands {
  public:
    // With further axes, each tensor has more elements behind those of its table entry.
    explicit Operands(const Operation& operation,
                      const std::vector<std::uint32_t>& further_axes = {})
        : operation_(operation) {
        RandomNumbers random(7);
        for (std::vector<std::uint32_t> dims : operation.dims) {
            std::vector<float> values = random.floats(size_of(dims), -1.0, 1.0);
            dims.insert(dims.end(), further_axes.begin(), further_axes.end());
            values.resize(size_of(dims), 0.625f);
            owned_.push_back(tensor_of(dims, values));
            pointers_.push_back(owned_.back().get());
        }
    }

    [[nodiscard]] zx_tensor_t* operator[](std::size_t index) const { return owned_[index].get(); }
    [[nodiscard]] std::size_t size() const { return owned_.size(); }
    [[nodiscard]] zx_status_t call() const { return operation_.call(pointers_.data()); }

    // The call with this tensor null.
    [[nodiscard]] zx_status_t call_without(std::size_t index) const {
        std::vector<zx_tensor_t*> pointers = pointers_;
        pointers[index] = nullptr;
        return operation_.call(pointers.data());
    }

    // The call with this tensor's host data hidden.
    [[nodiscard]] zx_status_t call_without_data(std::size_t index) const {
        float* const data = std::exchange(pointers_[index]->data, nullptr);
        const zx_status_t status = call();
        pointers_[index]->data = data;
        return status;
    }

  private:
    const Operation& operation_;
    std::vector<TensorPtr> owned_;
    std::vector<zx_tensor_t*> pointers_;
};

// Expects a refusal with this record, before anything was asked of OpenCL.
void expect_refused(zx_status_t status, zx_status_t code, const char* message) {
    EXPECT_EQ(status, code);
    expect_recorded(code, kModule, message);
    EXPECT_TRUE(opencl().calls.empty());
    plant_record();
}

std::vector<std::size_t> buffer_sizes() {
    std::vector<std::size_t> sizes;
    for (const BufferRequest& request : opencl().buffers) sizes.push_back(request.size);
    return sizes;
}

using CommonOperations = zx::test::DeviceOperations;

TEST_F(CommonOperations, AreRefusedWithoutKernelsBeforeAnythingElse) {
    zx_gpu_shutdown();
    opencl() = {};
    for (const Operation& operation : zx::test::operations()) {
        SCOPED_TRACE(operation.name);
        const std::vector<zx_tensor_t*> nothing(operation.dims.size(), nullptr);
        expect_refused(operation.call(nothing.data()), 200, "GPU not initialized");
    }
}

TEST_F(CommonOperations, RefuseEachTensorThatIsNullOrWithoutData) {
    for (const Operation& operation : zx::test::operations()) {
        SCOPED_TRACE(operation.name);
        const Operands operands(operation);
        // Counts and shapes are looked at later.
        const std::uint64_t size = std::exchange(operands[0]->size, 0x80000000U);
        for (std::size_t index = 0; index < operation.required; ++index) {
            SCOPED_TRACE(index);
            expect_refused(operands.call_without(index), 3, "NULL tensor");
            expect_refused(operands.call_without_data(index), 3, "NULL tensor");
        }
        operands[0]->size = size;
    }
}

TEST_F(CommonOperations, RefuseCountsAbove31Bits) {
    for (const Operation& operation : zx::test::operations()) {
        for (const Operation::Count& count : operation.counts) {
            SCOPED_TRACE(std::string(operation.name) + " axis " + std::to_string(count.axis));
            const Operands operands(operation);
            zx_tensor_t* const tensor = operands[count.tensor];
            const auto set = [&](std::uint32_t value) {
                if (count.axis == zx::test::kSize)
                    tensor->size = value;
                else
                    tensor->dims[count.axis] = value;
            };
            // Counts come before shapes, which do not fit either.
            set(0x80000000U);
            expect_refused(operands.call(), 5, "Element count exceeds 32 bits");
            // The largest count passes and is stopped by what comes next: the shapes or, where
            // none is tested, the upload.
            set(0x7fffffffU);
            bool tests_shapes = false;
            for (const std::uint64_t needed : operation.needed)
                tests_shapes = tests_shapes || needed != 0;
            if (tests_shapes) {
                expect_refused(operands.call(), 304, kMisfit);
                continue;
            }
            opencl().refused.insert("clCreateBuffer");
            EXPECT_EQ(operands.call(), ZX_ERR_BUFFER_CREATE);
            expect_untouched();
            opencl() = {};
        }
    }
}

TEST_F(CommonOperations, RefuseEachTensorWithAnElementTooFew) {
    for (const Operation& operation : zx::test::operations()) {
        for (std::size_t index = 0; index < operation.needed.size(); ++index) {
            if (operation.needed[index] == 0) continue;
            SCOPED_TRACE(std::string(operation.name) + " tensor " + std::to_string(index));
            const Operands operands(operation);
            opencl() = {};
            operands[index]->size = operation.needed[index] - 1;
            expect_refused(operands.call(), 304, kMisfit);
            operands[index]->size = operation.needed[index];
            EXPECT_EQ(operands.call(), ZX_OK);
            expect_untouched();
        }
    }
}

TEST_F(CommonOperations, UploadInputsFirstAndTheResultLast) {
    for (const Operation& operation : zx::test::operations()) {
        SCOPED_TRACE(operation.name);
        const Operands operands(operation);
        opencl() = {};
        EXPECT_EQ(operands.call(), ZX_OK);
        std::vector<BufferRequest> expected;
        for (const std::size_t index : operation.upload_order)
            expected.push_back({CL_MEM_READ_WRITE | CL_MEM_COPY_HOST_PTR,
                                operands[index]->size * sizeof(float), true});
        if (operation.index_bytes != 0)
            expected.push_back(
                {CL_MEM_READ_ONLY | CL_MEM_COPY_HOST_PTR, operation.index_bytes, true});
        EXPECT_EQ(opencl().buffers, expected);
        // Only the buffer of indices is given back.
        EXPECT_EQ(opencl().count("clReleaseMemObject"), operation.index_bytes != 0 ? 1 : 0);
        expect_untouched();
    }
}

TEST_F(CommonOperations, LaunchOnceWithoutOffsetAndLocalSizeAndDoNotWait) {
    for (const Operation& operation : zx::test::operations()) {
        SCOPED_TRACE(operation.name);
        const Operands operands(operation);
        opencl() = {};
        EXPECT_EQ(operands.call(), ZX_OK);
        EXPECT_EQ(opencl().launches, (std::vector<Launch>{{operation.global, {}, false, false}}));
        EXPECT_EQ(opencl().count("clFinish"), 0);
        EXPECT_TRUE(opencl().transfers.empty());
    }
}

TEST_F(CommonOperations, LeaveTheResultOnTheDeviceAndTheHostDataAlone) {
    for (const Operation& operation : zx::test::operations()) {
        SCOPED_TRACE(operation.name);
        const Operands operands(operation);
        std::vector<std::vector<float>> before;
        for (std::size_t index = 0; index < operands.size(); ++index)
            before.push_back(contents(operands[index]));
        EXPECT_EQ(operands.call(), ZX_OK);
        EXPECT_EQ(zx_engine_sync(), ZX_OK);
        for (std::size_t index = 0; index < operands.size(); ++index) {
            EXPECT_EQ(operands[index]->on_device, 1) << index;
            EXPECT_EQ(contents(operands[index]), before[index]) << index;
        }
        // Only the result differs once it is fetched.
        for (std::size_t index = 0; index < operands.size(); ++index) {
            EXPECT_EQ(zx_tensor_to_host(operands[index]), ZX_OK);
            EXPECT_EQ(operands[index]->on_device, 0) << index;
            EXPECT_EQ(contents(operands[index]) == before[index], index != operation.result)
                << index;
        }
    }
}

TEST_F(CommonOperations, TakeTensorsOfMoreAxesAsTheirLeadingElements) {
    for (const Operation& operation : zx::test::operations()) {
        if (std::string(operation.name) == "softmax_rows") continue;  // it refuses them
        SCOPED_TRACE(operation.name);
        const Operands plain(operation);
        EXPECT_EQ(plain.call(), ZX_OK);
        EXPECT_EQ(zx_tensor_to_host(plain[operation.result]), ZX_OK);
        const std::uint64_t needed = operation.needed[operation.result];
        const auto leading = [&](const Operands& operands) {
            const zx_tensor_t* const result = operands[operation.result];
            return std::vector<float>(result->data,
                                      result->data + (needed != 0 ? needed : operation.global[0]));
        };
        for (const std::vector<std::uint32_t>& further_axes :
             {std::vector<std::uint32_t>{3}, std::vector<std::uint32_t>{1, 2}}) {
            const Operands operands(operation, further_axes);
            EXPECT_EQ(operands.call(), ZX_OK);
            EXPECT_EQ(zx_tensor_to_host(operands[operation.result]), ZX_OK);
            // Elements that the device takes one by one or several at once differ in the last bits.
            const std::vector<float> expected = leading(plain);
            zx::test::expect_close(leading(operands), {expected.begin(), expected.end()}, 1e-6);
        }
    }
    expect_untouched();
}

TEST_F(CommonOperations, UploadOnlyWhatIsNotCurrentOnTheDevice) {
    for (const Operation& operation : zx::test::operations()) {
        SCOPED_TRACE(operation.name);
        const Operands operands(operation);
        ASSERT_EQ(operands.call(), ZX_OK);
        opencl() = {};
        EXPECT_EQ(operands.call(), ZX_OK);
        EXPECT_EQ(buffer_sizes(), operation.index_bytes != 0
                                      ? std::vector<std::size_t>{operation.index_bytes}
                                      : std::vector<std::size_t>{});
        EXPECT_TRUE(opencl().transfers.empty());
        // A tensor that is stale there is written into the buffer that it has.
        for (std::size_t index = 0; index < operands.size(); ++index) {
            operands[index]->on_device = 0;
            opencl() = {};
            EXPECT_EQ(operands.call(), ZX_OK);
            EXPECT_EQ(opencl().transfers,
                      (std::vector<zx::test::Transfer>{
                          {true, true, 0, operands[index]->size * sizeof(float), false}}));
            EXPECT_EQ(operands[index]->on_device, 1);
        }
        expect_untouched();
    }
}

TEST_F(CommonOperations, ReturnTheFailureOfAnUploadUnchanged) {
    for (const Operation& operation : zx::test::operations()) {
        for (std::size_t failing = 0; failing < operation.upload_order.size(); ++failing) {
            SCOPED_TRACE(std::string(operation.name) + " upload " + std::to_string(failing));
            const Operands operands(operation);
            opencl() = {};
            opencl().refused_once["clCreateBuffer"] = static_cast<int>(failing) + 1;
            EXPECT_EQ(operands.call(), ZX_ERR_BUFFER_CREATE);
            expect_untouched();
            EXPECT_TRUE(opencl().launches.empty());
            // What was uploaded before stays on the device.
            for (std::size_t place = 0; place < operation.upload_order.size(); ++place)
                EXPECT_EQ(operands[operation.upload_order[place]]->on_device,
                          place < failing ? 1 : 0);

            opencl() = {};
            ASSERT_EQ(operands.call(), ZX_OK);
            operands[operation.upload_order[failing]]->on_device = 0;
            opencl() = {};
            opencl().refused.insert("clEnqueueWriteBuffer");
            EXPECT_EQ(operands.call(), ZX_ERR_TRANSFER);
            expect_recorded(209, "src/zx_engine", "Failed to write to GPU buffer");
            EXPECT_TRUE(opencl().launches.empty());
            opencl() = {};
            plant_record();
        }
    }
}

// Expects the failure of a launch as this operation reports it.
void expect_no_launch(const Operation& operation, const Operands& operands) {
    EXPECT_EQ(operands.call(), ZX_ERR_KERNEL_EXEC);
    if (operation.refusal)
        expect_recorded(207, kModule, operation.refusal);
    else
        expect_untouched();
    plant_record();
}

TEST_F(CommonOperations, ReportARefusedLaunchAndRecordItForMatricesOnly) {
    for (const Operation& operation : zx::test::operations()) {
        SCOPED_TRACE(operation.name);
        const Operands operands(operation);
        opencl() = {};
        opencl().refused.insert("clEnqueueNDRangeKernel");
        expect_no_launch(operation, operands);
        EXPECT_EQ(opencl().launches.size(), 1U);
        EXPECT_EQ(opencl().count("clReleaseMemObject"), operation.index_bytes != 0 ? 1 : 0);
        for (std::size_t index = 0; index < operands.size(); ++index)
            EXPECT_EQ(operands[index]->on_device, 1) << index;
    }
}

// The result of an operation one of whose calls is refused; the record says the same.
zx_status_t expected_after(const Operation& operation, const NumberedCall& refused) {
    const auto& [call, number] = refused;
    if (call == "clCreateBuffer") {
        if (static_cast<std::size_t>(number) <= operation.upload_order.size()) {
            expect_untouched();
            return ZX_ERR_BUFFER_CREATE;
        }
        expect_recorded(101, kModule, "Failed to create index buffer");
        return ZX_ERR_ALLOCATION_FAILED;
    }
    if (call == "clSetKernelArg" || call == "clEnqueueNDRangeKernel") {
        if (operation.refusal)
            expect_recorded(207, kModule, operation.refusal);
        else
            expect_untouched();
        return ZX_ERR_KERNEL_EXEC;
    }
    expect_untouched();
    return ZX_OK;
}

TEST_F(CommonOperations, FailAsStatedWhicheverCallIsRefusedAndLeaveNothing) {
    for (const Operation& operation : zx::test::operations()) {
        std::vector<NumberedCall> calls;
        {
            const Operands operands(operation);
            opencl() = {};
            ASSERT_EQ(operands.call(), ZX_OK);
            ASSERT_EQ(zx_tensor_to_host(operands[operation.result]), ZX_OK);
            calls = opencl().numbered();
        }
        for (const NumberedCall& refused : calls) {
            SCOPED_TRACE(std::string(operation.name) + " " + refused.first + " " +
                         std::to_string(refused.second));
            const zx::test::OpenClObjects before = zx::test::opencl_objects();
            {
                const Operands operands(operation);
                const std::vector<float> untouched = contents(operands[operation.result]);
                opencl() = {};
                opencl().refused_once.insert(refused);
                plant_record();
                const zx_status_t status = operands.call();
                EXPECT_EQ(status, expected_after(operation, refused));
                EXPECT_EQ(opencl().launches.size(),
                          status == ZX_OK || refused.first == "clEnqueueNDRangeKernel" ? 1U : 0U);
                if (refused.first == "clEnqueueReadBuffer") {
                    EXPECT_EQ(zx_tensor_to_host(operands[operation.result]), ZX_ERR_TRANSFER);
                    expect_recorded(209, "src/zx_engine", "Failed to read from GPU buffer");
                    EXPECT_EQ(contents(operands[operation.result]), untouched);
                    EXPECT_EQ(operands[operation.result]->on_device, 1);
                }
                // The next call is not the worse for it.
                opencl() = {};
                EXPECT_EQ(operands.call(), ZX_OK);
            }
            EXPECT_EQ(zx::test::release_objects_since(before).size(),
                      refused.first == "clReleaseMemObject" ? 1U : 0U);
        }
    }
    plant_record();
}

TEST_F(CommonOperations, ReportAKernelThatTheFileLacksAsARefusedLaunch) {
    stop_and_release();
    start();
    zx::test::write_file("other.cl", "kernel void other(global float* x) { x[0] = 1.0f; }\n");
    ASSERT_EQ(zx_gpu_init_from_file("other.cl"), ZX_OK);
    plant_record();
    opencl() = {};
    for (const Operation& operation : zx::test::operations()) {
        SCOPED_TRACE(operation.name);
        const Operands operands(operation);
        expect_no_launch(operation, operands);
        EXPECT_TRUE(opencl().launches.empty());
    }
}

}  // namespace
