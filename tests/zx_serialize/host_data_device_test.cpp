// Writers and a tensor whose current numbers are on the device: the host's are written, as they
// stand, until the caller brings the others back.

#include "engine_fixture.hpp"
#include "model_file_bytes.hpp"
#include "model_records.hpp"

#include <functional>
#include <string>
#include <vector>

namespace zx::test {
namespace {

class HostData : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        start();
        model_.reset(zx_model_mf_create(2, 1, 2, false));
        ASSERT_TRUE(model_);
        set_users({1, 2, 3, 4});
        fill(model_->item_embeddings, {0, 0});
    }

    void TearDown() override {
        model_.reset();
        EngineTest::TearDown();
    }

    // Writes without the library, so that no flag changes.
    void set_users(const std::vector<float>& numbers) const {
        fill(model_->user_embeddings, numbers);
    }

    [[nodiscard]] zx_tensor_t* users() const { return model_->user_embeddings; }

    ModelPtr model_;
};

TEST_F(HostData, IsWrittenUntilTheDeviceDataIsBroughtBack) {
    const struct {
        const char* file;  // what the call below writes, and where the users' numbers begin in it
        std::size_t begin;
        std::function<zx_status_t()> write;
    } cases[] = {
        {"t.zxm", 512, [this] { return zx_tensor_save(users(), "t.zxm", "t"); }},
        {"t.bin", 0, [this] { return zx_tensor_to_raw(users(), "t.bin"); }},
        {"t.npy", 128, [this] { return zx_tensor_to_npy(users(), "t.npy"); }},
        {"d/user_embeddings.npy", 128, [this] { return zx_model_to_npy_dir(model_.get(), "d"); }},
        {"m.safetensors", 152,
         [this] { return zx_model_to_safetensors(model_.get(), "m.safetensors"); }},
    };
    const std::string host = FileBytes().floats({-1, -2, -3, -4}).bytes();
    const std::string device = FileBytes().floats({1, 2, 3, 4}).bytes();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        set_users({1, 2, 3, 4});
        ASSERT_EQ(zx_tensor_to_device(users()), ZX_OK);
        set_users({-1, -2, -3, -4});
        opencl() = {};
        ASSERT_EQ(c.write(), ZX_OK);
        EXPECT_TRUE(opencl().transfers.empty());
        EXPECT_EQ(users()->on_device, 1);
        EXPECT_TRUE(file_content(c.file).substr(c.begin, 16) == host);

        ASSERT_EQ(zx_tensor_to_host(users()), ZX_OK);
        ASSERT_EQ(c.write(), ZX_OK);
        EXPECT_TRUE(file_content(c.file).substr(c.begin, 16) == device);
    }
}

}  // namespace
}  // namespace zx::test
