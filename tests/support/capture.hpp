// Runs something and returns what it wrote to the console.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace zx::test {

struct Console {
    std::string out;
    std::string err;
};

template <typename Function>
Console console_of(Function&& function) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::forward<Function>(function)();
    // Both are fetched, so that neither stays redirected.
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    return {std::move(out), std::move(err)};
}

}  // namespace zx::test
