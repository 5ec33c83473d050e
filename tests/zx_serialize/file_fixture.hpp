// The frame of the tests of small files: a folder of their own, a quiet library, and tensors with
// chosen contents.
#pragma once

#include "capture.hpp"
#include "error_record.hpp"
#include "model_file_bytes.hpp"
#include "model_records.hpp"
#include "owned.hpp"
#include "temp_folder.hpp"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace zx::test {

inline constexpr const char* kModule = "src/zx_serialize";

class FileTest : public testing::Test {
  protected:
    void SetUp() override { zx_set_verbosity(0); }
    void TearDown() override { zx_set_verbosity(-1); }

    TempFolder folder_;
};

using Extents = std::vector<std::uint32_t>;

// A tensor that holds first, first + 1/8, first + 2/8, ...
inline TensorPtr counted_tensor(const Extents& dims, float first = 1.0f) {
    TensorPtr tensor(zx_tensor_create(static_cast<int>(dims.size()), dims.data()));
    for (std::uint64_t i = 0; tensor && i < tensor->size; ++i)
        tensor->data[i] = first + static_cast<float>(i) / 8.0f;
    return tensor;
}

// A tensor over no more than one number, whatever its extents say.
inline TensorPtr wrapped_tensor(const Extents& dims) {
    static float number = 0.0f;
    return TensorPtr(zx_tensor_wrap(&number, static_cast<std::uint32_t>(dims.size()), dims.data()));
}

// Runs something that opens files, and sees that none stays open.
template <typename Function>
auto closing_files(Function&& function) {
    const std::ptrdiff_t open_before = open_files();
    auto result = std::forward<Function>(function)();
    EXPECT_EQ(open_files(), open_before);
    return result;
}

// Expects that the call prints this line where information lines are wanted, and nothing elsewhere.
template <typename Function>
void expect_says(const std::string& line, Function&& succeeding) {
    for (const int verbosity : {-7, -1, 0, 1, 2, 3}) {
        SCOPED_TRACE(verbosity);
        zx_set_verbosity(verbosity);
        const Console console = console_of([&] { EXPECT_EQ(succeeding(), ZX_OK); });
        EXPECT_EQ(console.out, verbosity == 0 || verbosity == 1 ? "" : line);
        EXPECT_EQ(console.err, "");
    }
    zx_set_verbosity(0);
}

}  // namespace zx::test
