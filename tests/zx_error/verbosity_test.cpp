// The verbosity level, which lives in the engine record.

#include "zorvex.h"
#include "zx_engine/engine_state.hpp"

#include <climits>
#include <gtest/gtest.h>

namespace {

// Taken before any test has changed the level.
const int kStoredAtStart = zx::g_engine.verbosity;
const int kReadAtStart = zx_get_verbosity();

TEST(Verbosity, IsMinusOneAtFirstAndReadsAsTwo) {
    EXPECT_EQ(kStoredAtStart, -1);
    EXPECT_EQ(kReadAtStart, 2);
}

TEST(Verbosity, IsStoredAsItIsButReadsAsTwoWhenNegative) {
    const struct {
        int set;
        int read;
    } cases[] = {{-5, 2}, {7, 7},  {0, 0},       {1, 1},
                 {2, 2},  {-1, 2}, {INT_MIN, 2}, {INT_MAX, INT_MAX}};
    for (const auto& c : cases) {
        zx_set_verbosity(c.set);
        EXPECT_EQ(zx_get_verbosity(), c.read) << c.set;
        EXPECT_EQ(zx::g_engine.verbosity, c.set);
    }
}

TEST(Verbosity, IsComparedAsAnUnsignedNumber) {
    const struct {
        int level;
        bool information;
        bool warnings;
    } cases[] = {{-1, true, true}, {INT_MIN, true, true}, {0, false, false},
                 {1, false, true}, {2, true, true},       {INT_MAX, true, true}};
    for (const auto& c : cases) {
        zx_set_verbosity(c.level);
        EXPECT_EQ(zx::prints_information(), c.information) << c.level;
        EXPECT_EQ(zx::prints_warnings(), c.warnings) << c.level;
    }
}

}  // namespace
