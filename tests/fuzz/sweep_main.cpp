// Loads twenty sample models cut off behind every byte, and with every single bit of their header
// and descriptors flipped: the stated result each time, and, where no sanitizer keeps memory of its
// own, no more resident memory than the file, the model that it lawfully describes, and 1 MiB.
//   sweep LIMIT [SAMPLE]   single allocations of more than LIMIT bytes fail; only the sample of
//   this
//                          number, from 0

#include "allocation_limit.hpp"
#include "bytes.hpp"
#include "expected_load.hpp"
#include "memory_file.hpp"
#include "samples.hpp"
#include "support/owned.hpp"
#include "target.hpp"
#include "zorvex.h"
#include "zx_serialize/model_file_bytes.hpp"

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>

namespace {

using zx::fuzz::require;

// Whether no sanitizer and no Valgrind keeps memory of its own beside.
bool memory_is_ours() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer) || \
    __has_feature(thread_sanitizer)
    return false;
#endif
#endif
    return std::getenv("ZORVEX_VALGRIND") == nullptr;
}

// The most memory that the process has had resident since the last reset.
class PeakMemory {
  public:
    PeakMemory() : reset_(open("/proc/self/clear_refs", O_WRONLY | O_CLOEXEC)) {
        // Larger blocks then come from the system and go back to it at once.
        constexpr int kLargeBlock = 128 << 10;
        (void)mallopt(M_MMAP_THRESHOLD, kLargeBlock);
        (void)mallopt(M_TRIM_THRESHOLD, kLargeBlock);
        reset();
        base_ = bytes();
    }
    ~PeakMemory() { (void)close(reset_); }
    PeakMemory(const PeakMemory&) = delete;
    PeakMemory& operator=(const PeakMemory&) = delete;

    void reset() { require(pwrite(reset_, "5", 1, 0) == 1, "the peak of memory can be reset"); }
    // Above what there was at first.
    [[nodiscard]] std::uint64_t growth() const { return bytes() - std::min(bytes(), base_); }

  private:
    static std::uint64_t bytes() {
        rusage usage = {};
        require(getrusage(RUSAGE_SELF, &usage) == 0, "the peak of memory is known");
        return static_cast<std::uint64_t>(usage.ru_maxrss) << 10U;
    }

    int reset_;
    std::uint64_t base_ = 0;
};

class Sweep {
  public:
    void run(const std::string& sample) {
        for (std::size_t size = 0; size < sample.size(); ++size) load(sample.substr(0, size));
        const auto count = zx::fuzz::number_at<std::uint32_t>(sample, zx::test::kNumTensorsAt);
        std::string flipped = sample;
        for (std::size_t at = 0; at < zx::test::descriptor_at(count); ++at)
            for (unsigned bit = 0; bit < 8; ++bit) {
                const auto mask = static_cast<char>(1U << bit);
                flipped[at] = static_cast<char>(flipped[at] ^ mask);
                load(flipped);
                flipped[at] = static_cast<char>(flipped[at] ^ mask);
            }
    }

    void print() const {
        std::printf("%llu loads, %llu of them refused; ", static_cast<unsigned long long>(loads_),
                    static_cast<unsigned long long>(refused_));
        if (memory_is_ours_)
            std::printf("resident memory at most the file, the model and %lld bytes\n",
                        static_cast<long long>(beyond_));
        else
            std::printf("resident memory not measured\n");
    }

  private:
    void load(const std::string& bytes) {
        constexpr std::int64_t kAllowance = 1 << 20;
        const zx::fuzz::ExpectedModel expected =
            zx::fuzz::expected_model(bytes, zx::fuzz::allocation_limit());
        file_.hold(bytes);
        zx_clear_error();
        memory_.reset();
        zx::test::ModelPtr model(zx_model_load(file_.path()));
        const auto beyond = static_cast<std::int64_t>(memory_.growth()) -
                            static_cast<std::int64_t>(bytes.size() + expected.described_bytes);
        beyond_ = std::max(beyond_, beyond);
        require(!memory_is_ours_ || beyond <= kAllowance, "memory is as large as the model");
        zx::fuzz::require_record(expected.refusal);
        require((model == nullptr) == (expected.refusal.code != ZX_OK),
                "a model is loaded if nothing is recorded");
        if (model) require_is(expected, *model);
        ++loads_;
        refused_ += model ? 0 : 1;
    }

    zx::fuzz::MemoryFile file_;
    PeakMemory memory_;
    const bool memory_is_ours_ = memory_is_ours();
    std::uint64_t loads_ = 0;
    std::uint64_t refused_ = 0;
    std::int64_t beyond_ = INT64_MIN;
};

}  // namespace

int main(int count, char** arguments) {
    require(count == 2 || count == 3, "the arguments are LIMIT [SAMPLE]");
    zx::fuzz::set_allocation_limit(std::stoull(arguments[1]));
    zx_set_verbosity(0);
    std::vector<std::string> samples = zx::fuzz::sample_models();
    if (count == 3) samples = {samples.at(std::stoull(arguments[2]))};
    Sweep sweep;
    for (const std::string& sample : samples) sweep.run(sample);
    sweep.print();
}
