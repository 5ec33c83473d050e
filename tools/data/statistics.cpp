// Mean and deviation of a block are worked out on their own and then joined with those of the
// blocks before: Chan, Golub, LeVeque, "Updating formulae and a pairwise algorithm for computing
// sample variances", 1979. Sums of squares over the whole file would lose the deviation of numbers
// that are far from 0.
#include "statistics.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

namespace zxtool {

namespace {

static_assert(std::endian::native == std::endian::little);

class Accumulator {
  public:
    void add(std::vector<float>& numbers) {
        const auto end = std::partition(numbers.begin(), numbers.end(),
                                        [](float number) { return std::isfinite(number); });
        statistics_.not_finite += static_cast<std::uint64_t>(numbers.end() - end);
        if (end == numbers.begin()) return;
        numbers.erase(end, numbers.end());

        const auto [least, greatest] = std::minmax_element(numbers.begin(), numbers.end());
        const bool is_first = statistics_.finite == 0;
        statistics_.min = is_first ? *least : std::min(statistics_.min, *least);
        statistics_.max = is_first ? *greatest : std::max(statistics_.max, *greatest);
        join(numbers);
    }
    [[nodiscard]] Statistics result() const {
        Statistics result = statistics_;
        if (result.finite != 0)
            result.deviation = std::sqrt(squares_ / static_cast<double>(result.finite));
        return result;
    }

  private:
    void join(const std::vector<float>& numbers) {
        const auto count = static_cast<double>(numbers.size());
        double sum = 0.0;
        for (const float number : numbers) sum += double{number};
        const double mean = sum / count;
        double squares = 0.0;
        for (const float number : numbers)
            squares += (double{number} - mean) * (double{number} - mean);

        const auto before = static_cast<double>(statistics_.finite);
        const double distance = mean - statistics_.mean;
        const double share = count / (before + count);
        statistics_.finite += numbers.size();
        statistics_.mean += distance * share;
        squares_ += squares + distance * distance * before * share;
    }

    Statistics statistics_;
    double squares_ = 0.0;  // of the distances from the mean
};

}  // namespace

Statistics statistics_of(const RegularFile& file, std::uint64_t offset, std::uint64_t bytes,
                         const std::function<void()>& on_block) {
    Accumulator accumulator;
    std::vector<float> numbers;
    file.for_each_block(offset, offset + bytes, [&](std::uint64_t, std::string_view block) {
        numbers.resize(block.size() / sizeof(float));
        std::memcpy(numbers.data(), block.data(), block.size());
        accumulator.add(numbers);
        if (on_block) on_block();
    });
    return accumulator.result();
}

}  // namespace zxtool
