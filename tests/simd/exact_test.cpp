// The inner loops that give the same bits on every processor: every variant against independent
// code, at every length from 0 to 67 and at addresses that are no multiple of a vector.

#include "float_bits.hpp"
#include "random_numbers.hpp"
#include "reference_dot.hpp"
#include "variants.hpp"

#include <algorithm>
#include <bit>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace zx::test {
namespace {

constexpr float kGuard = -12345.5f;
constexpr std::size_t kMaxLength = 67;
constexpr float kSmallest = std::numeric_limits<float>::denorm_min();
constexpr float kDenormal = std::bit_cast<float>(0x007fffffu);  // the largest of them

// Starts `shift` floats behind whatever boundary the vector has, and ends exactly with the data,
// so that a checker of memory sees a read past it.
struct Shifted {
    Shifted(const std::vector<float>& values, std::size_t shift)
        : storage(shift + values.size()), begin(storage.data() + shift) {
        std::copy(values.begin(), values.end(), begin);
    }
    std::vector<float> storage;
    float* begin;
};

TEST(SimdVariants, BeginWithTheScalarOne) {
    const std::vector<const simd::Operations*> tables = variants();
    ASSERT_FALSE(tables.empty());
    EXPECT_STREQ(tables.front()->name, "scalar");
    EXPECT_FALSE(tables.front()->fused);
    for (std::size_t i = 1; i < tables.size(); ++i) EXPECT_TRUE(tables[i]->fused);
    EXPECT_EQ(&simd::operations(), tables.back()) << "the widest is in use";
}

TEST(SimdVariants, CanBeForced) {
    for (const simd::Variant which :
         {simd::Variant::kScalar, simd::Variant::kAvx2, simd::Variant::kAvx512}) {
        if (!simd::variant(which)) continue;
        simd::use(which);
        EXPECT_EQ(&simd::operations(), simd::variant(which));
    }
}

TEST(SimdDot, GivesTheStatedBits) {
    RandomNumbers random(1);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t d = 0; d <= kMaxLength; ++d) {
            for (std::size_t shift = 0; shift < 4; ++shift) {
                const Shifted a(random.floats(d, -1, 1), shift);
                const Shifted b(random.floats(d, -1, 1), 3 - shift);
                const float expected = reference_dot(a.begin, b.begin, d);
                EXPECT_TRUE(same_number(ops->dot(a.begin, b.begin, d), expected)) << d;
            }
        }
    }
}

TEST(SimdDot, CarriesWhatIsNotFinite) {
    const struct {
        float a, b, expected;
    } cases[] = {{kNaN, 0, kNaN},
                 {1, kNaN, kNaN},
                 {kInfinity, 0, kNaN},
                 {kInfinity, 2, kInfinity},
                 {kInfinity, -2, -kInfinity},
                 {3e38f, -3e38f, -kInfinity}};
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const auto& c : cases) {
            for (std::size_t place = 0; place < 37; ++place) {
                std::vector<float> a(37, 1.0f);
                std::vector<float> b(37, 1.0f);
                a[place] = c.a;
                b[place] = c.b;
                EXPECT_TRUE(same_number(ops->dot(a.data(), b.data(), 37), c.expected)) << place;
                float rows[1];
                ops->dot_rows(a.data(), 1, b.data(), 37, rows);
                EXPECT_TRUE(same_number(rows[0], c.expected)) << place;
                float two[2];
                ops->dot_two(a.data(), b.data(), b.data(), 37, two);
                EXPECT_TRUE(same_number(two[0], c.expected)) << place;
                EXPECT_TRUE(same_number(two[1], c.expected)) << place;
            }
        }
    }
}

TEST(SimdDotRows, GivesEachRowTheBitsOfItsOwnDotProduct) {
    RandomNumbers random(2);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t d = 0; d <= kMaxLength; ++d) {
            for (const std::size_t rows : {0u, 1u, 2u, 7u, 8u, 9u, 15u, 16u, 17u, 31u, 33u, 50u}) {
                const Shifted table(random.floats(rows * d, -1, 1), d % 4);
                const Shifted x(random.floats(d, -1, 1), rows % 4);
                std::vector<float> out(rows + 1, kGuard);
                std::vector<float> expected(rows + 1, kGuard);
                for (std::size_t r = 0; r < rows; ++r)
                    expected[r] = reference_dot(table.begin + r * d, x.begin, d);
                ops->dot_rows(table.begin, rows, x.begin, d, out.data());
                EXPECT_TRUE(same_numbers(out, expected)) << rows << " rows of " << d;
            }
        }
    }
}

TEST(SimdDotGathered, GivesEachRowTheBitsOfItsOwnDotProduct) {
    RandomNumbers random(7);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t d = 0; d <= kMaxLength; ++d) {
            const Shifted table(random.floats(20 * d, -1, 1), d % 4);
            const Shifted x(random.floats(d, -1, 1), (d + 1) % 4);
            for (std::size_t count = 0; count <= simd::kGatherBatch; ++count) {
                const float* rows[simd::kGatherBatch];
                std::vector<float> out(count + 1, kGuard);
                std::vector<float> expected(count + 1, kGuard);
                for (std::size_t j = 0; j < count; ++j) {
                    rows[j] = table.begin + random.below(20) * d;
                    expected[j] = reference_dot(rows[j], x.begin, d);
                }
                ops->dot_gathered(rows, count, x.begin, d, out.data());
                EXPECT_TRUE(same_numbers(out, expected)) << count << " rows of " << d;
            }
        }
    }
}

TEST(SimdDotPairs, GivesEachPairTheBitsOfItsOwnDotProduct) {
    RandomNumbers random(3);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t d = 0; d <= kMaxLength; ++d) {
            const Shifted table(random.floats(20 * d, -1, 1), d % 4);
            for (std::size_t count = 0; count <= simd::kGatherBatch; ++count) {
                const float* a[simd::kGatherBatch];
                const float* b[simd::kGatherBatch];
                std::vector<float> out(count + 1, kGuard);
                std::vector<float> expected(count + 1, kGuard);
                for (std::size_t j = 0; j < count; ++j) {
                    a[j] = table.begin + random.below(20) * d;
                    b[j] = table.begin + random.below(20) * d;
                    expected[j] = reference_dot(a[j], b[j], d);
                }
                ops->dot_pairs(a, b, count, d, out.data());
                EXPECT_TRUE(same_numbers(out, expected)) << count << " pairs of " << d;
            }
        }
    }
}

TEST(SimdFindGreater, FindsTheFirstOneFromAnywhere) {
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t count = 0; count <= kMaxLength; ++count) {
            const Shifted lower(std::vector<float>(count, 1.0f), count % 4);
            EXPECT_EQ(ops->find_greater(lower.begin, 0, count, 1.0f), count);
            EXPECT_EQ(ops->find_greater(lower.begin, count, count, 0.0f), count);
            for (std::size_t place = 0; place < count; ++place) {
                Shifted values(std::vector<float>(count, 1.0f), count % 4);
                values.begin[place] = 2.0f;
                values.begin[count - 1] = 2.0f;
                EXPECT_EQ(ops->find_greater(values.begin, 0, count, 1.0f), place);
                EXPECT_EQ(ops->find_greater(values.begin, place, count, 1.0f), place);
                EXPECT_EQ(ops->find_greater(values.begin, place / 2, count, 1.0f), place);
                if (place + 1 < count)
                    EXPECT_EQ(ops->find_greater(values.begin, place + 1, count, 1.0f), count - 1);
                else
                    EXPECT_EQ(ops->find_greater(values.begin, place + 1, count, 1.0f), count);
            }
        }
    }
}

TEST(SimdFindGreater, ComparesStrictlyAndNeverWithNaN) {
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        const std::vector<float> nans(40, kNaN);
        EXPECT_EQ(ops->find_greater(nans.data(), 0, 40, -kInfinity), 40u);
        std::vector<float> mixed(40, kNaN);
        mixed[23] = 5.0f;
        EXPECT_EQ(ops->find_greater(mixed.data(), 0, 40, 4.0f), 23u);
        EXPECT_EQ(ops->find_greater(mixed.data(), 0, 40, 5.0f), 40u);
        const std::vector<float> infinite(40, kInfinity);
        EXPECT_EQ(ops->find_greater(infinite.data(), 3, 40, kInfinity), 40u);
        EXPECT_EQ(ops->find_greater(infinite.data(), 3, 40, 3e38f), 3u);
        EXPECT_EQ(ops->find_greater(infinite.data(), 3, 40, kNaN), 40u);
        const std::vector<float> zeros(40, 0.0f);
        EXPECT_EQ(ops->find_greater(zeros.data(), 0, 40, -0.0f), 40u);
    }
}

TEST(SimdCountGreater, CountsStrictlyGreaterOnesOnly) {
    RandomNumbers random(8);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t count = 0; count <= kMaxLength; ++count) {
            // The number behind those that are asked for is greater, and must not count.
            std::vector<float> numbers(count + 1, 9.0f);
            std::size_t expected = 0;
            for (std::size_t i = 0; i < count; ++i) {
                constexpr float kValues[] = {1.0f, 2.0f, 3.0f, kNaN, -kInfinity, kInfinity};
                numbers[i] = kValues[random.below(6)];
                if (numbers[i] == 3.0f || numbers[i] == kInfinity) ++expected;
            }
            EXPECT_EQ(ops->count_greater(numbers.data(), count, 2.0f), expected) << count;
            EXPECT_EQ(ops->count_greater(numbers.data(), count, kInfinity), 0u);
            EXPECT_EQ(ops->count_greater(numbers.data(), count, kNaN), 0u);
        }
    }
}

TEST(SimdGroupMaxima, TakesEveryGroupsGreatestAndNoNaN) {
    RandomNumbers random(9);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::size_t groups : {1u, 3u, 16u, 33u, 64u}) {
            for (std::size_t count = groups; count <= 3 * groups + 5; ++count) {
                Shifted values(random.floats(count, -1, 1), count % 4);
                for (std::size_t i = 0; i < count; i += 5) values.begin[i] = kNaN;
                std::vector<float> expected(groups + 1, -kInfinity);
                for (std::size_t i = 0; i < count; ++i)
                    if (values.begin[i] > expected[i % groups])
                        expected[i % groups] = values.begin[i];
                std::vector<float> out(groups + 1, kGuard);
                expected.back() = kGuard;
                ops->group_maxima(values.begin, count, groups, out.data());
                EXPECT_TRUE(same_numbers(out, expected)) << count << " in " << groups;
            }
        }
    }
}

// Sixteen interleaved sums, halved four times, then the tail one by one.
float reference_dot_16(const float* a, const float* b, std::size_t d) {
    float sums[16] = {};
    const std::size_t grouped = d / 16 * 16;
    for (std::size_t k = 0; k < grouped; ++k) {
        const float product = a[k] * b[k];
        sums[k % 16] = sums[k % 16] + product;
    }
    for (std::size_t half : {8u, 4u, 2u, 1u})
        for (std::size_t i = 0; i < half; ++i) sums[i] = sums[i] + sums[i + half];
    float sum = sums[0];
    for (std::size_t k = grouped; k < d; ++k) {
        const float product = a[k] * b[k];
        sum = sum + product;
    }
    return sum;
}

TEST(SimdDotTwo, GivesTheStatedBits) {
    RandomNumbers random(4);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t d = 0; d <= kMaxLength; ++d) {
            const Shifted w(random.floats(d, -1, 1), d % 4);
            const Shifted p(random.floats(d, -1, 1), (d + 1) % 4);
            const Shifted n(random.floats(d, -1, 1), (d + 2) % 4);
            float out[3] = {kGuard, kGuard, kGuard};
            ops->dot_two(w.begin, p.begin, n.begin, d, out);
            EXPECT_TRUE(same_number(out[0], reference_dot_16(w.begin, p.begin, d))) << d;
            EXPECT_TRUE(same_number(out[1], reference_dot_16(w.begin, n.begin, d))) << d;
            EXPECT_EQ(out[2], kGuard);
        }
    }
}

TEST(SimdBprUpdate, GivesTheStatedBits) {
    RandomNumbers random(5);
    const float decay = 0.9995f;
    const float g = 0.0173f;
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t d = 0; d <= kMaxLength; ++d) {
            // One more number than the rows have, which must stay.
            std::vector<float> start_w = random.floats(d + 1, -1, 1);
            std::vector<float> start_p = random.floats(d + 1, -1, 1);
            std::vector<float> start_n = random.floats(d + 1, -1, 1);
            const Shifted w(start_w, d % 4);
            const Shifted p(start_p, (d + 1) % 4);
            const Shifted n(start_n, (d + 2) % 4);
            ops->bpr_update(w.begin, p.begin, n.begin, d, decay, g);
            for (std::size_t k = 0; k < d; ++k) {
                const float old_w = start_w[k];
                const float shrunk_w = start_w[k] * decay;
                const float towards = g * start_p[k];
                const float away = (-g) * start_n[k];
                start_w[k] = (shrunk_w + towards) + away;
                const float shrunk_p = start_p[k] * decay;
                const float along = g * old_w;
                start_p[k] = shrunk_p + along;
                const float shrunk_n = start_n[k] * decay;
                const float against = (-g) * old_w;
                start_n[k] = shrunk_n + against;
            }
            EXPECT_TRUE(same_numbers(w.begin, start_w.data(), d + 1)) << d;
            EXPECT_TRUE(same_numbers(p.begin, start_p.data(), d + 1)) << d;
            EXPECT_TRUE(same_numbers(n.begin, start_n.data(), d + 1)) << d;
        }
    }
}

TEST(SimdRelu, ClearsWhatIsNegativeAndNothingElse) {
    RandomNumbers random(6);
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t count = 0; count <= kMaxLength; ++count) {
            const std::vector<float> values = random.floats(count, -1, 1);
            // One more number than is asked for, which must stay.
            Shifted x(values, count % 4);
            x.storage.push_back(kGuard);
            x.begin = x.storage.data() + count % 4;
            std::vector<float> expected = values;
            for (float& value : expected) value = value < 0.0f ? 0.0f : value;
            expected.push_back(kGuard);
            ops->relu(x.begin, count);
            EXPECT_TRUE(same_numbers(x.begin, expected.data(), count + 1)) << count;
        }
    }
}

TEST(SimdRelu, KeepsNaNAndMinusZeroAndTellsDenormalsApart) {
    const struct {
        float value, expected;
    } cases[] = {{kNaN, kNaN},           {-kNaN, kNaN},          {-0.0f, -0.0f},
                 {0.0f, 0.0f},           {kInfinity, kInfinity}, {-1.5f, 0.0f},
                 {-kInfinity, 0.0f},     {kDenormal, kDenormal}, {-kDenormal, 0.0f},
                 {kSmallest, kSmallest}, {-kSmallest, 0.0f}};
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const auto& c : cases) {
            for (std::size_t place = 0; place < 37; ++place) {
                std::vector<float> x(37, 1.0f);
                x[place] = c.value;
                std::vector<float> expected(37, 1.0f);
                expected[place] = c.expected;
                ops->relu(x.data(), x.size());
                EXPECT_TRUE(same_numbers(x, expected)) << c.value << " at " << place;
            }
        }
    }
}

TEST(SimdAllBelow, FindsAnIdBeyondTheLimitWhereverItStands) {
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::uint32_t limit : {1u, 1000u, 0x80000000u, 0xffffffffu}) {
            for (std::size_t count = 0; count <= kMaxLength; ++count) {
                // The number behind those that are asked for is beyond, and must not count.
                std::vector<std::uint32_t> ids(count + 1, limit - 1);
                ids[count] = limit;
                EXPECT_TRUE(ops->all_below(ids.data(), count, limit)) << count;
                for (std::size_t place = 0; place < count; ++place) {
                    for (const std::uint32_t beyond : {limit, 0xffffffffu}) {
                        ids[place] = beyond;
                        EXPECT_FALSE(ops->all_below(ids.data(), count, limit))
                            << place << " of " << count;
                    }
                    ids[place] = 0;
                }
            }
        }
        const std::uint32_t none = 0;
        EXPECT_FALSE(ops->all_below(&none, 1, 0));
        EXPECT_TRUE(ops->all_below(nullptr, 0, 0));
    }
}

TEST(SimdIsIdentity, FindsAnIdOutOfPlaceWhereverItStands) {
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (std::size_t count = 0; count <= kMaxLength; ++count) {
            // The number behind those that are asked for is out of place, and must not count.
            std::vector<std::uint32_t> ids(count + 1);
            for (std::size_t k = 0; k < count; ++k) ids[k] = static_cast<std::uint32_t>(k);
            ids[count] = 1000;
            EXPECT_TRUE(ops->is_identity(ids.data(), count)) << count;
            for (std::size_t place = 0; place < count; ++place) {
                ids[place] ^= 0x80000000u;
                EXPECT_FALSE(ops->is_identity(ids.data(), count)) << place << " of " << count;
                ids[place] ^= 0x80000000u;
            }
        }
    }
}

TEST(SimdContains, FindsAnIdWhereverItStands) {
    for (const simd::Operations* ops : variants()) {
        SCOPED_TRACE(ops->name);
        for (const std::uint32_t id : {0u, 7u, 0x80000000u, 0xffffffffu}) {
            for (std::size_t count = 0; count <= kMaxLength; ++count) {
                // Those before and behind the ones that are asked for must not count.
                std::vector<std::uint32_t> ids(count + 2, id + 1);
                ids.front() = ids.back() = id;
                EXPECT_FALSE(ops->contains(ids.data() + 1, count, id)) << count;
                for (std::size_t place = 1; place <= count; ++place) {
                    ids[place] = id;
                    EXPECT_TRUE(ops->contains(ids.data() + 1, count, id)) << place;
                    ids[place] = id + 1;
                }
            }
        }
    }
}

}  // namespace
}  // namespace zx::test
