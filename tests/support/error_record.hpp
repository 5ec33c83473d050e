// Looks at the calling thread's error record: what a failure recorded, or that it recorded nothing.
#pragma once

#include "zorvex.h"
#include "zx_error/record.hpp"

#include <cstring>
#include <gtest/gtest.h>

namespace zx::test {

// The planted record is one that no function of the library leaves behind.
inline constexpr zx_status_t kPlantedCode = -77;
inline constexpr const char* kPlantedFile = "planted";
inline constexpr int kPlantedLine = 4711;
inline constexpr const char* kPlantedMessage = "nobody has touched this record";

// Fills the record, so that expect_untouched() can tell whether it was written since.
inline void plant_record() {
    zx_set_error_internal(kPlantedCode, kPlantedFile, kPlantedLine, kPlantedMessage);
}

// Expects that nothing was recorded since plant_record().
inline void expect_untouched() {
    const zx_error_context_t* record = zx_get_error_context();
    EXPECT_EQ(record->code, kPlantedCode);
    EXPECT_STREQ(record->file, kPlantedFile);
    EXPECT_EQ(record->line, kPlantedLine);
    EXPECT_STREQ(record->message, kPlantedMessage);
}

// Expects a record with this code, this module and this whole message; "" stands for no message.
inline void expect_recorded(zx_status_t code, const char* file, const char* message) {
    const zx_error_context_t* record = zx_get_error_context();
    EXPECT_EQ(record->code, code);
    EXPECT_STREQ(record->file, file);
    EXPECT_GT(record->line, 0);
    EXPECT_NE(std::memchr(record->message, '\0', sizeof(record->message)), nullptr);
    EXPECT_STREQ(record->message, message);
}

}  // namespace zx::test
