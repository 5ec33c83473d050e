// Writes the benchmarks' interactions to a file: rows, columns and entries, then the starts of the
// rows and one past the last, then the columns, all as 32-bit numbers.
//
// zorvex_benchmark_data FILE

#include "data.hpp"

#include <cstdio>
#include <memory>

namespace {

struct FileClose {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};

bool write_numbers(std::FILE* file, const std::uint32_t* numbers, std::size_t count) {
    return std::fwrite(numbers, sizeof *numbers, count, file) == count;
}

}  // namespace

int main(int argc, char** argv) {
    zx_set_verbosity(0);
    const std::unique_ptr<std::FILE, FileClose> file(argc == 2 ? std::fopen(argv[1], "wb")
                                                               : nullptr);
    if (!file) {
        (void)std::fprintf(stderr, "usage: zorvex_benchmark_data FILE, which can be written\n");
        return 1;
    }
    const zx_sparse_t& matrix = zxbench::zipf_interactions();
    const std::uint32_t shape[] = {matrix.rows, matrix.cols, matrix.nnz};
    const bool is_written = write_numbers(file.get(), shape, 3) &&
                            write_numbers(file.get(), matrix.row_ptr, matrix.rows + 1U) &&
                            write_numbers(file.get(), matrix.col_idx, matrix.nnz) &&
                            std::fflush(file.get()) == 0;
    return is_written ? 0 : 1;
}
