// The two JSON files that describe a model, to the byte.

#include "file_fixture.hpp"

#include <string>

namespace zx::test {
namespace {

class ModelMetadata : public FileTest {};
class ModelSchema : public FileTest {};

std::string metadata_of(const zx_model_t& model) {
    EXPECT_EQ(closing_files([&] { return zx_model_metadata_json(&model, "m.json"); }), ZX_OK);
    return file_content("m.json");
}

TEST_F(ModelMetadata, DescribesTheExample) {
    const ModelPtr model(zx_model_mf_create(100, 50, 8, false));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(metadata_of(*model), R"({
  "format": "zorvex",
  "version": 1,
  "model_type": 0,
  "model_name": "MatrixFactorization",
  "num_users": 100,
  "num_items": 50,
  "embedding_dim": 8,
  "num_parameters": 1200,
  "tensors": {
    "user_embeddings": {"shape": [100, 8], "dtype": "float32"},
    "item_embeddings": {"shape": [50, 8], "dtype": "float32"}
  }
}
)");
}

const std::string kUserLine = R"(    "user_embeddings": {"shape": [3, 4], "dtype": "float32"})";
const std::string kItemLine = R"(    "item_embeddings": {"shape": [5, 4], "dtype": "float32"})";

// Of a model of 3 users, 5 items and dimension 4.
std::string metadata_with(const std::string& parameters, const std::string& tables) {
    return R"({
  "format": "zorvex",
  "version": 1,
  "model_type": 0,
  "model_name": "MatrixFactorization",
  "num_users": 3,
  "num_items": 5,
  "embedding_dim": 4,
  "num_parameters": )" +
           parameters + R"(,
  "tensors": {
)" + tables +
           R"(
  }
}
)";
}

// Biases count as parameters, and are not listed.
TEST_F(ModelMetadata, CountsBiasesButDoesNotListThem) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, true));
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(metadata_of(*model), metadata_with("40", kUserLine + ",\n" + kItemLine));
}

TEST_F(ModelMetadata, ListsTheTablesThatExist) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, false));
    ASSERT_NE(model, nullptr);
    const TensorPtr users(model->user_embeddings);
    const TensorPtr items(model->item_embeddings);
    model->user_embeddings = nullptr;
    EXPECT_EQ(metadata_of(*model), metadata_with("20", kItemLine));
    model->item_embeddings = nullptr;
    EXPECT_EQ(metadata_of(*model), metadata_with("0", ""));
    model->user_embeddings = users.get();
    EXPECT_EQ(metadata_of(*model), metadata_with("12", kUserLine));
    model->user_embeddings = nullptr;
}

TEST_F(ModelMetadata, ListsNoTablesOfAnotherKindOfModel) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, false));
    ASSERT_NE(model, nullptr);
    std::string expected = metadata_with("0", "");
    const std::string type_line = "\"model_type\": 0";
    const std::size_t type_at = expected.find(type_line);
    model->type = kNotMf;
    EXPECT_EQ(metadata_of(*model),
              expected.replace(type_at, type_line.size(), "\"model_type\": 1"));
    model->type = ZX_MODEL_MF;
}

TEST_F(ModelMetadata, WritesTheLargestNumbers) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, false));
    ASSERT_NE(model, nullptr);
    model->num_users = model->num_items = model->embedding_dim = 0xffffffff;
    model->user_embeddings->dims[0] = model->user_embeddings->dims[1] = 0xffffffff;
    model->user_embeddings->size = 0xfffffffe00000001;
    const std::string written = metadata_of(*model);
    for (const char* line :
         {"  \"num_users\": 4294967295,\n", "  \"num_items\": 4294967295,\n",
          "  \"embedding_dim\": 4294967295,\n", "  \"num_parameters\": 18446744065119617045,\n",
          "    \"user_embeddings\": {\"shape\": [4294967295, 4294967295], "}) {
        EXPECT_NE(written.find(line), std::string::npos) << line;
    }
}

// Also the text that this makes no JSON.
TEST_F(ModelMetadata, WritesTheNameAsItStands) {
    const std::string long_name(100000, 'n');
    for (const std::string& name : {std::string("a \"b\" %s \\ \n"), std::string(), long_name}) {
        const ModelPtr model(zx_model_mf_create(1, 1, 1, false));
        ASSERT_NE(model, nullptr);
        model->name = name.c_str();
        const std::string written = metadata_of(*model);
        EXPECT_NE(written.find("\n  \"model_name\": \"" + name + "\",\n  \"num_users\""),
                  std::string::npos);
        model->name = nullptr;
        EXPECT_NE(metadata_of(*model).find("\n  \"model_name\": \"\",\n"), std::string::npos);
    }
}

TEST_F(ModelSchema, IsTheSameForEveryModel) {
    const std::string expected = R"({
  "ir_version": 9,
  "producer_name": "zorvex",
  "producer_version": "1",
  "model_type": "matrix_factorization",
  "graph": {
    "inputs": [
      {"name": "user_ids", "type": "uint32", "shape": ["batch"]},
      {"name": "item_ids", "type": "uint32", "shape": ["batch"]}
    ],
    "outputs": [
      {"name": "scores", "type": "float32", "shape": ["batch"]}
    ]
  }
}
)";
    for (const bool biased : {false, true}) {
        const ModelPtr model(zx_model_mf_create(3, 5, 4, biased));
        ASSERT_NE(model, nullptr);
        for (const zx_model_type_t type : {kNotMf, zx_model_type_t{ZX_MODEL_MF}}) {
            model->type = type;
            EXPECT_EQ(zx_model_to_json_schema(model.get(), "s.json"), ZX_OK);
            EXPECT_EQ(file_content("s.json"), expected);
        }
    }
}

TEST_F(ModelMetadata, AndSchemaRefuseANullModelOrPath) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, false));
    ASSERT_NE(model, nullptr);
    for (const auto write : {zx_model_metadata_json, zx_model_to_json_schema}) {
        for (const bool has_model : {false, true}) {
            zx_clear_error();
            EXPECT_EQ(write(has_model ? model.get() : nullptr, has_model ? nullptr : "m.json"),
                      ZX_ERR_NULL_POINTER);
            expect_recorded(ZX_ERR_NULL_POINTER, kModule, "NULL model or path");
        }
    }
    EXPECT_FALSE(std::filesystem::exists("m.json"));
}

// They print nothing, at any verbosity.
TEST_F(ModelMetadata, AndSchemaAreWrittenQuietly) {
    const ModelPtr model(zx_model_mf_create(3, 5, 4, false));
    ASSERT_NE(model, nullptr);
    zx_set_verbosity(3);
    const Console console = console_of([&] {
        EXPECT_EQ(zx_model_metadata_json(model.get(), "m.json"), ZX_OK);
        EXPECT_EQ(zx_model_to_json_schema(model.get(), "s.json"), ZX_OK);
    });
    EXPECT_EQ(console.out, "");
    EXPECT_EQ(console.err, "");
}

}  // namespace
}  // namespace zx::test
