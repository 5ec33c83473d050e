// The readers of the tool.

#include "bytes.hpp"
#include "container.hpp"
#include "error.hpp"
#include "ids_file.hpp"
#include "interactions.hpp"
#include "known_file.hpp"
#include "memory_file.hpp"
#include "model_check.hpp"
#include "model_print.hpp"
#include "model_store.hpp"
#include "mutators.hpp"
#include "samples.hpp"
#include "statistics.hpp"
#include "target.hpp"
#include "tool_mutators.hpp"
#include "zorvex.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace zx::fuzz {

namespace {

using zxtool::Exit;
using zxtool::IdMap;
using zxtool::RegularFile;
using zxtool::StoredTensor;

// What an action refuses, if it does: with this status, in one line that names the file first. Any
// other exception ends the program.
template <class Action>
std::optional<std::string> refusal_of(const std::string& path, Exit status, const Action& action) {
    try {
        action();
    } catch (const zxtool::Error& error) {
        const std::string text = error.what();
        require(error.status() == status, "bad bytes are refused as such");
        require(text.starts_with(path + ":"), "a refusal names the file first");
        require(std::none_of(text.begin(), text.end(),
                             [](unsigned char c) { return c < 0x20 || c == 0x7F; }),
                "a refusal is one line of text");
        return text.substr(path.size());
    }
    return std::nullopt;
}

// ":12: what" names a line of the file, ": what" none.
void require_line(std::string_view refusal, std::string_view text) {
    const auto ends = std::count(text.begin(), text.end(), '\n');
    const std::int64_t lines = ends + (text.empty() || text.ends_with('\n') ? 0 : 1);
    if (refusal.starts_with(": ")) return;
    std::int64_t line = 0;
    const auto [end, error] =
        std::from_chars(refusal.data() + 1, refusal.data() + refusal.size(), line);
    require(error == std::errc() && *end == ':' && line >= 1 && line <= lines,
            "a refusal names a line of the file");
}

void require_ids(const IdMap& ids, const std::vector<std::uint32_t>& numbers) {
    for (std::uint32_t number = 0; number < ids.size(); ++number) {
        const std::string_view name = ids.name(number);
        require(
            !name.empty() && name.find('\0') == std::string_view::npos && ids.find(name) == number,
            "an id has the number that it was given");
    }
    require(std::all_of(numbers.begin(), numbers.end(),
                        [&](std::uint32_t number) { return number < ids.size(); }),
            "a row has ids of the file");
}

void require_rows(const zxtool::InteractionFile& file) {
    const zxtool::Interactions& rows = file.rows;
    require(rows.size() > 0 && rows.items.size() == rows.size(), "a file has rows");
    require(rows.ratings.empty() || rows.ratings.size() == rows.size(), "every row has a rating");
    require(rows.timestamps.empty() || rows.timestamps.size() == rows.size(),
            "every row has a timestamp");
    require(std::all_of(rows.ratings.begin(), rows.ratings.end(),
                        [](float rating) { return std::isfinite(rating); }),
            "ratings are finite");
    require_ids(file.users, rows.users);
    require_ids(file.items, rows.items);
}

// The same rows come out where all ids are known, which is another way through the readers.
void require_known_rows(const std::string& path, const zxtool::ReadOptions& options,
                        const zxtool::InteractionFile& file) {
    zxtool::UnknownIds unknown;
    const zxtool::Interactions rows =
        zxtool::read_known_interactions(path, options, file.users, file.items, unknown);
    require(unknown.rows == 0 && rows.users == file.rows.users && rows.items == file.rows.items &&
                rows.ratings == file.rows.ratings && rows.timestamps == file.rows.timestamps,
            "a file has the same rows where its ids are known");
}

// The first byte says whether there is a header.
zxtool::ReadOptions options_of(std::string_view bytes, zxtool::Format format) {
    constexpr zxtool::Header kHeaders[] = {zxtool::Header::kDetect, zxtool::Header::kYes,
                                           zxtool::Header::kNo};
    return {.format = format, .header = kHeaders[number_at<std::uint8_t>(bytes, 0) % 3]};
}

std::optional<std::string> read_rows_of(std::string_view bytes, zxtool::Format format,
                                        NamedFile& file) {
    const zxtool::ReadOptions options = options_of(bytes, format);
    file.hold(bytes.substr(std::min<std::size_t>(bytes.size(), 1)));
    return refusal_of(file.path(), Exit::kBadInput, [&] {
        const zxtool::InteractionFile read = zxtool::read_interactions(file.path(), options);
        require_rows(read);
        require_known_rows(file.path(), options, read);
    });
}

template <zxtool::Format kFormat>
void read_rows(std::string_view bytes) {
    static NamedFile file("x");
    if (const auto refusal = read_rows_of(bytes, kFormat, file))
        require_line(*refusal, bytes.substr(std::min<std::size_t>(bytes.size(), 1)));
}

void read_gzip(std::string_view bytes) {
    static NamedFile file("x.gz");
    (void)read_rows_of(bytes, zxtool::Format::kDetect, file);
}

void read_ids(std::string_view bytes) {
    constexpr std::size_t kUnusedAt = 20;  // a field that nobody looks at
    (void)refusal_of("x.ids", Exit::kBadModel, [&] {
        const zxtool::IdsFile ids = zxtool::parse_ids(bytes, "x.ids");
        const std::string again = zxtool::format_ids(ids.model, ids.users, ids.items);
        require(again.size() == bytes.size(), "an ids file holds nothing but ids");
        if (number_at<std::uint32_t>(bytes, kUnusedAt) == 0)
            require(again == bytes, "ids are written as they were read");
    });
}

// Every tensor of the file is in it.
void require_tensors(const RegularFile& file, const std::vector<StoredTensor>& tensors) {
    for (const StoredTensor& tensor : tensors) {
        require(tensor.offset <= file.size() && tensor.bytes <= file.size() - tensor.offset,
                "a tensor is in its file");
        if (!tensor.is_float32) continue;
        const zxtool::Statistics statistics =
            zxtool::statistics_of(file, tensor.offset, tensor.bytes, {});
        require(statistics.finite + statistics.not_finite == tensor.bytes / sizeof(float),
                "every number of a tensor is looked at");
    }
}

// Reads a file whose name says what it is.
void read_known(NamedFile& file, std::string_view bytes, std::string_view format) {
    file.hold(bytes);
    (void)refusal_of(file.path(), Exit::kBadInput, [&] {
        const RegularFile opened(file.path());
        const zxtool::KnownFile known = zxtool::read_known_file(opened);
        require(known.format == format, "a file has the format of its name");
        require_tensors(opened, known.tensors);
    });
}

void read_npy_file(std::string_view bytes) {
    static NamedFile file("x.npy");
    read_known(file, bytes, "npy");
}

void read_safetensors_file(std::string_view bytes) {
    static NamedFile file("x.safetensors");
    read_known(file, bytes, "safetensors");
}

void read_json_file(std::string_view bytes) {
    static NamedFile file("x.json");
    read_known(file, bytes, "json");
}

// A model that is in order to the byte is the same after loading and saving.
void require_kept(const std::string& path, std::string_view bytes) {
    static MemoryFile saved;
    zx_set_verbosity(0);
    const zxtool::ModelPtr model(zx_model_load(path.c_str()));
    require(model && zx_model_save(model.get(), saved.path()) == ZX_OK,
            "a model in order can be loaded and saved");
    const std::string again = saved.contents();
    const auto data_at = number_at<std::uint64_t>(bytes, 16);
    require(again.size() == bytes.size() && again.substr(data_at) == bytes.substr(data_at),
            "a model in order keeps its numbers");
}

void read_container_file(std::string_view bytes) {
    static NamedFile file("x.zxm");
    file.hold(bytes);
    const std::string& path = file.path();
    const RegularFile opened(path);
    const auto known = refusal_of(path, Exit::kBadModel, [&] {
        require_tensors(opened, zxtool::read_known_file(opened).tensors);
    });
    const auto shapes = refusal_of(path, Exit::kBadModel, [&] { zxtool::check_tensors(opened); });
    const auto sizes = refusal_of(path, Exit::kBadModel, [&] { zxtool::check_model_file(path); });
    const auto order =
        refusal_of(path, Exit::kBadModel, [&] { zxtool::check_every_byte(opened, {}); });
    if (order) return;
    require(!known && !shapes && !sizes, "what is in order to the byte is in order");
    require_kept(path, bytes);
}

void require_model(const zxtool::StoredModel& stored) {
    require(stored.model && stored.users.size() == stored.model->num_users &&
                stored.items.size() == stored.model->num_items,
            "a model has an id for every row");
    std::uint32_t item = 0;
    float score = 0.0F;
    require(zx_recommend(stored.model.get(), 0, 1, &item, &score) == ZX_OK &&
                item < stored.items.size(),
            "a loaded model recommends one of its items");
}

void read_model_store(std::string_view bytes) {
    static const NameFolder folder;
    static MemoryFile model_file;
    static MemoryFile ids_file;
    static const std::string bare = folder.give("bare.zxm", model_file);
    static const std::string path = folder.give("m.zxm", model_file);
    static const std::string ids_path = folder.give("m.zxm.ids", ids_file);
    const Pair pair = split_pair(bytes);
    model_file.hold(pair.model);
    ids_file.hold(pair.ids);
    zx_set_verbosity(0);

    const auto load = [](const std::string& from) {
        return [&from] { require_model(zxtool::load_model(from)); };
    };
    const auto alone = refusal_of(bare, Exit::kBadModel, load(bare));
    // A refusal names the one of the two files that is wrong.
    const std::string common = path.substr(0, path.size() - std::string_view(".zxm").size());
    try {
        load(path)();
        require(!alone, "a model that is loaded with ids is loaded without them");
    } catch (const zxtool::Error& error) {
        require(
            error.status() == Exit::kBadModel && std::string_view(error.what()).starts_with(common),
            "a pair that is wrong is refused as such");
    }
    const auto checked = refusal_of(bare, Exit::kBadModel,
                                    [] { require_model(zxtool::load_checked_model(bare, {})); });
    require(checked || !alone, "a model that is in order to the byte is loaded");
}

std::vector<std::string> with_options(const std::vector<std::string>& texts) {
    std::vector<std::string> seeds;
    for (const std::string& text : texts)
        for (const char option : {'\0', '\1', '\2'}) seeds.push_back(option + text);
    return seeds;
}

std::vector<std::string> rows_apart(const std::string& separator) {
    const auto row = [&](const std::vector<std::string>& fields) {
        std::string line;
        for (const std::string& field : fields) line += (line.empty() ? "" : separator) + field;
        return line + "\n";
    };
    return with_options({row({"1", "10"}) + row({"2", "20"}),
                         row({"userId", "itemId", "rating", "timestamp"}) +
                             row({"1", "10", "3.5", "978300760"}) +
                             row({"anna", "b c", "-1e-3", "1234567890123"}),
                         row({"\"a, \"\"b\"\"\"", "caf\xC3\xA9", "5"}),
                         "\xEF\xBB\xBF" + row({"7", "8", "1"}) + "\r\n\n" + row({"9", "8", "2"})});
}

std::vector<std::string> csv_seeds() {
    return rows_apart(",");
}
std::vector<std::string> tsv_seeds() {
    return rows_apart("\t");
}
std::vector<std::string> space_seeds() {
    return rows_apart(" ");
}
std::vector<std::string> colon_seeds() {
    return rows_apart("::");
}
std::vector<std::string> list_seeds() {
    return with_options({"1048575 1048576\n", "anna 1 2 3\nben 2\n", "1 2\n\n2\t3 4\r\n5\n"});
}
std::vector<std::string> matrix_seeds() {
    const std::string banner = "%%MatrixMarket matrix coordinate ";
    return with_options({banner + "real general\n% a comment\n9 9 2\n1 2 3.5\n9 01 -1e3\n",
                         banner + "pattern general\n3 4 2\n1 1\n3 4\n",
                         banner + "integer general\n1 1 0\n"});
}

// Of every format that is told by its first line.
std::vector<std::string> detected_seeds() {
    std::vector<std::string> seeds;
    for (const auto& texts :
         {csv_seeds(), tsv_seeds(), space_seeds(), colon_seeds(), matrix_seeds()})
        seeds.insert(seeds.end(), texts.begin(), texts.end());
    return seeds;
}

std::vector<std::string> gzip_seeds() {
    std::vector<std::string> seeds;
    for (const std::string& text : detected_seeds())
        seeds.push_back(text.substr(0, 1) + compressed(std::string_view(text).substr(1)));
    return seeds;
}

// The ids file of a model whose users and items have these names.
std::string ids_of(const std::string& model, std::uint32_t users, std::uint32_t items) {
    IdMap user_ids;
    IdMap item_ids;
    for (std::uint32_t i = 0; i < users; ++i) user_ids.add("u" + std::to_string(i));
    for (std::uint32_t i = 0; i < items; ++i) item_ids.add(std::to_string(i));
    return zxtool::format_ids({model.size(), XXH3_64bits(model.data(), model.size())}, user_ids,
                              item_ids);
}

std::vector<std::string> ids_seeds() {
    return {ids_of("", 0, 0), ids_of("model", 1, 2), ids_of("another", 3, 5)};
}

std::vector<std::string> container_seeds() {
    std::vector<std::string> seeds = sample_models();
    for (const std::string& tensor : sample_tensors()) seeds.push_back(tensor);
    return seeds;
}

std::vector<std::string> store_seeds() {
    std::vector<std::string> seeds;
    for (const std::string& model : sample_models()) {
        const auto users = number_at<std::uint32_t>(model, 152 + 260);
        const auto items = number_at<std::uint32_t>(model, 152 + 304 + 260);
        seeds.push_back(join_pair({model, ids_of(model, users, items)}));
    }
    return seeds;
}

std::vector<std::string> npy_seeds() {
    return {sample_npy()};
}
std::vector<std::string> safetensors_seeds() {
    return {sample_safetensors()};
}

constexpr Target kTargets[] = {
    {"csv", read_rows<zxtool::Format::kCsv>, mutate_rows, csv_seeds},
    {"tsv", read_rows<zxtool::Format::kTsv>, mutate_rows, tsv_seeds},
    {"spaces", read_rows<zxtool::Format::kSpace>, mutate_rows, space_seeds},
    {"colons", read_rows<zxtool::Format::kColons>, mutate_rows, colon_seeds},
    {"lists", read_rows<zxtool::Format::kLists>, mutate_rows, list_seeds},
    {"matrix_market", read_rows<zxtool::Format::kMatrixMarket>, mutate_matrix, matrix_seeds},
    {"detected_rows", read_rows<zxtool::Format::kDetect>, mutate_rows, detected_seeds},
    {"gzip", read_gzip, mutate_gzip, gzip_seeds},
    {"ids_file", read_ids, mutate_ids, ids_seeds},
    {"npy", read_npy_file, mutate_npy, npy_seeds},
    {"safetensors", read_safetensors_file, mutate_safetensors, safetensors_seeds},
    {"json", read_json_file, mutate_json, sample_json},
    {"container", read_container_file, mutate_container, container_seeds},
    {"model_store", read_model_store, mutate_pair, store_seeds},
};

}  // namespace

std::span<const Target> targets() {
    return kTargets;
}

}  // namespace zx::fuzz
