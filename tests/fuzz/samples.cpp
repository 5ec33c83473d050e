#include "samples.hpp"

#include "memory_file.hpp"
#include "support/owned.hpp"
#include "target.hpp"
#include "zorvex.h"

namespace zx::fuzz {

namespace {

using zx::test::ModelPtr;
using zx::test::TensorPtr;

struct Shape {
    std::uint32_t users;
    std::uint32_t items;
    std::uint32_t d;
};
constexpr Shape kShapes[] = {{1, 1, 1}, {1, 2, 1}, {2, 1, 3},  {3, 5, 4},  {5, 3, 2},
                             {4, 4, 4}, {7, 2, 8}, {1, 9, 16}, {16, 1, 5}, {13, 11, 3}};

ModelPtr model_of(const Shape& shape, bool use_bias) {
    zx_set_verbosity(0);
    zx_rng_seed(shape.users * 1000 + shape.items);
    ModelPtr model(zx_model_mf_create(shape.users, shape.items, shape.d, use_bias));
    require(model != nullptr, "a small model can be made");
    for (std::uint32_t user = 0; use_bias && user < shape.users; ++user)
        model->user_biases->data[user] = static_cast<float>(user);
    return model;
}

// The bytes of the file that an action writes.
template <class Write>
std::string written(Write write) {
    const MemoryFile file;
    require(write(file.path()) == ZX_OK, "a small file can be written");
    return file.contents();
}

}  // namespace

std::vector<std::string> sample_models() {
    std::vector<std::string> files;
    for (const Shape& shape : kShapes)
        for (const bool use_bias : {false, true})
            files.push_back(written([model = model_of(shape, use_bias)](const char* path) {
                return zx_model_save(model.get(), path);
            }));
    return files;
}

std::vector<std::string> sample_tensors() {
    constexpr std::uint32_t kDims[] = {2, 3, 1, 4};
    std::vector<std::string> files;
    for (int ndim = 1; ndim <= 4; ++ndim) {
        const TensorPtr tensor(zx_tensor_create(ndim, kDims));
        files.push_back(
            written([&](const char* path) { return zx_tensor_save(tensor.get(), path, "x"); }));
    }
    return files;
}

std::string sample_npy() {
    return written([model = model_of(kShapes[3], false)](const char* path) {
        return zx_tensor_to_npy(model->user_embeddings, path);
    });
}

std::string sample_safetensors() {
    return written([model = model_of(kShapes[3], true)](const char* path) {
        return zx_model_to_safetensors(model.get(), path);
    });
}

std::vector<std::string> sample_json() {
    const ModelPtr model = model_of(kShapes[3], true);
    return {
        written([&](const char* path) { return zx_model_metadata_json(model.get(), path); }),
        written([&](const char* path) { return zx_model_to_json_schema(model.get(), path); }),
    };
}

}  // namespace zx::fuzz
