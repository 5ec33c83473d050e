#include "known_file.hpp"

#include "files.hpp"
#include "model_store.hpp"

namespace zxtool::test {
namespace {

struct Sample {
    std::string name;
    std::string contents;
    std::string format;
    std::size_t tensors;
};

// A file of each format, as the library writes it.
std::vector<Sample> samples() {
    const TemporaryFolder folder;
    const ModelPtr model(zx_model_mf_create(2, 3, 2, 1));
    zx_set_verbosity(0);
    EXPECT_EQ(zx_model_save(model.get(), (folder / "m").c_str()), ZX_OK);
    EXPECT_EQ(zx_tensor_save(model->user_embeddings, (folder / "t").c_str(), "t"), ZX_OK);
    EXPECT_EQ(zx_tensor_to_npy(model->user_embeddings, (folder / "n").c_str()), ZX_OK);
    EXPECT_EQ(zx_model_to_safetensors(model.get(), (folder / "s").c_str()), ZX_OK);
    EXPECT_EQ(zx_model_metadata_json(model.get(), (folder / "j").c_str()), ZX_OK);
    EXPECT_EQ(zx_tensor_to_raw(model->user_embeddings, (folder / "r").c_str()), ZX_OK);
    return {{"m", read_file(folder / "m"), "model", 4},
            {"t", read_file(folder / "t"), "tensor", 1},
            {"n", read_file(folder / "n"), "npy", 1},
            {"s.safetensors", read_file(folder / "s"), "safetensors", 4},
            {"j", read_file(folder / "j"), "json", 2},
            {"r.raw", read_file(folder / "r"), "raw", 1}};
}

TEST(KnownFile, NamesFormatAndTensors) {
    for (const Sample& sample : samples()) {
        SCOPED_TRACE(sample.name);
        const TemporaryFolder folder;
        write_file(folder / sample.name, sample.contents);
        const KnownFile known = read_known_file(RegularFile(folder / sample.name));
        EXPECT_EQ(known.format, sample.format);
        EXPECT_EQ(known.tensors.size(), sample.tensors);
    }
}

// Whatever stands in a file, what is said about it is in the file, or it is refused.
void expect_in_file(const std::string& path) {
    try {
        const RegularFile file(path);
        for (const StoredTensor& tensor : read_known_file(file).tensors) {
            EXPECT_LE(tensor.offset, file.size());
            EXPECT_LE(tensor.bytes, file.size() - tensor.offset);
        }
    } catch (const Error& error) {
        EXPECT_TRUE(error.status() == Exit::kBadInput || error.status() == Exit::kBadModel);
    }
}

TEST(KnownFile, SurvivesEveryChangedByteAndEveryCut) {
    for (const Sample& sample : samples()) {
        SCOPED_TRACE(sample.name);
        const TemporaryFolder folder;
        const std::string path = folder / sample.name;
        for (std::size_t at = 0; at < sample.contents.size(); ++at) {
            for (const char bits : {'\x01', '\xff'}) {
                std::string changed = sample.contents;
                changed[at] = static_cast<char>(changed[at] ^ bits);
                write_file(path, changed);
                expect_in_file(path);
            }
            write_file(path, sample.contents.substr(0, at));
            expect_in_file(path);
        }
    }
}

}  // namespace
}  // namespace zxtool::test
