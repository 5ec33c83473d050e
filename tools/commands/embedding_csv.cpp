#include "embedding_csv.hpp"

#include "output.hpp"
#include "signals.hpp"

#include <string>

namespace zxtool {

void write_embeddings(std::string_view what, const IdMap& ids, const zx_tensor_t& embeddings,
                      const zx_tensor_t* biases, AtomicFile& file) {
    const std::uint32_t d = zx_tensor_dim(&embeddings, 1);
    std::string line(what);
    for (std::uint32_t column = 0; column < d; ++column) {
        line += ',';
        line += std::to_string(column);
    }
    line += biases != nullptr ? ",bias\n" : "\n";
    file.write(line);
    for (std::uint32_t number = 0; number < ids.size(); ++number) {
        const float* const row = zx_tensor_row_ptr(&embeddings, number);
        line = csv_field(ids.name(number));
        for (std::uint32_t column = 0; column < d; ++column) {
            line += ',';
            line += shortest(row[column]);
        }
        if (biases != nullptr) {
            line += ',';
            line += shortest(zx_tensor_data(biases)[number]);
        }
        line += '\n';
        file.write(line);
        stop_if_interrupted();
    }
    file.settle();
}

void write_ids(std::string_view what, const IdMap& ids, AtomicFile& file) {
    file.write(what);
    file.write("\n");
    for (std::uint32_t number = 0; number < ids.size(); ++number) {
        file.write(csv_field(ids.name(number)));
        file.write("\n");
        stop_if_interrupted();
    }
    file.settle();
}

}  // namespace zxtool
