#include "model_store.hpp"

#include "atomic_file.hpp"
#include "error.hpp"
#include "ids_file.hpp"
#include "model_check.hpp"
#include "model_print.hpp"
#include "regular_file.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace zxtool {

namespace {

constexpr int kMaxReplacements = 8;

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Error(Exit::kInputOutput, fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

// Throws for the failure of a library call that read or wrote `path`; `status` is the status of
// those that are no fault of memory or of opening the file.
[[noreturn]] void fail_as_recorded(const std::string& path, const char* what, Exit status) {
    const zx_error_context_t record = *zx_get_error_context();
    zx_clear_error();
    if (record.code == ZX_OK || record.code == ZX_ERR_OUT_OF_MEMORY)
        throw Error(Exit::kOutOfMemory, fmt::format("{}: no memory for the model", path));
    if (record.code == ZX_ERR_FILE_OPEN) status = Exit::kInputOutput;
    throw Error(status, fmt::format("{}: {}: {}", path, what, record.message));
}

// A name beside a model that says: the ids of the next model, complete, not in force yet.
std::string pending(const std::string& ids_path) {
    return ids_path + ".new";
}

// Parses an ids file if it is there and belongs to the model; what is wrong with it otherwise goes
// to `refusal`, nothing if there is no such file.
std::optional<IdsFile> try_ids(const std::string& path, const std::string& model_path,
                               const ModelPrint& model, std::optional<Error>& refusal) {
    const std::optional<RegularFile> file = RegularFile::find(path);
    if (!file) return std::nullopt;
    try {
        if (parse_ids_head(file->start(kIdsHeadBytes), path) == model) {
            IdsFile ids = parse_ids(file->start(file->size()), path);
            // Another process may have written the file meanwhile.
            if (ids.model == model) return ids;
        }
        refusal = Error(Exit::kBadModel,
                        fmt::format("{}: does not belong to {}, expected the ids saved with it",
                                    path, model_path));
    } catch (const Error& error) {
        refusal = error;
    }
    return std::nullopt;
}

// Where the ids of a model may be.
std::vector<std::string> ids_places(const std::string& model_path) {
    std::vector<std::string> places = {model_path + ".ids"};
    const std::string linked = follow_links(model_path) + ".ids";
    if (linked != places.front()) places.push_back(linked);
    return places;
}

// The ids that belong to a model; nothing when it has none. Throws Error(kBadModel) when there is
// an ids file, but none that belongs to it.
std::optional<IdsFile> find_ids(const std::string& model_path, const ModelPrint& model) {
    std::optional<Error> refusal;
    for (const std::string& place : ids_places(model_path)) {
        // Between the first two looks, another process may put its pending ids in force.
        std::optional<Error> ignored;
        if (auto ids = try_ids(place, model_path, model, ignored)) return ids;
        if (auto ids = try_ids(pending(place), model_path, model, ignored)) return ids;
        if (auto ids = try_ids(place, model_path, model, refusal)) return ids;
    }
    if (refusal) throw Error(*refusal);
    return std::nullopt;
}

IdMap plain_numbers(std::uint32_t count) {
    IdMap numbers;
    for (std::uint32_t number = 0; number < count; ++number) numbers.add(std::to_string(number));
    return numbers;
}

StoredModel load_once(const std::string& path) {
    check_model_file(path);
    const ModelPrint print = print_of(path);
    StoredModel stored;
    stored.file_bytes = print.bytes;
    zx_clear_error();
    stored.model.reset(zx_model_load(path.c_str()));
    if (!stored.model) fail_as_recorded(path, "is no model that can be used", Exit::kBadModel);
    check_tensors(RegularFile(path));

    const zx_model_t& model = *stored.model;
    if (auto ids = find_ids(path, print)) {
        if (ids->users.size() != model.num_users || ids->items.size() != model.num_items)
            throw Error(Exit::kBadModel,
                        fmt::format("{}: its ids file has {} users and {} items, expected {} and "
                                    "{}",
                                    path, ids->users.size(), ids->items.size(), model.num_users,
                                    model.num_items));
        stored.has_ids = true;
        stored.users = std::move(ids->users);
        stored.items = std::move(ids->items);
    } else {
        stored.users = plain_numbers(model.num_users);
        stored.items = plain_numbers(model.num_items);
    }
    return stored;
}

// Which file a path names at the moment, and in which state.
struct Identity {
    dev_t device;
    ino_t inode;
    off_t bytes;
    std::int64_t seconds;
    std::int64_t nanoseconds;
    bool operator==(const Identity& other) const = default;
};

Identity identify(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) fail(path, "cannot be opened");
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

// A saving that was cut off after its second rename leaves ids in force that belong to no model and
// the right ones pending. They must be in force before other pending ids take their place.
void finish_pending(const std::string& model_path) {
    const std::string ids_path = model_path + ".ids";
    if (access(model_path.c_str(), F_OK) != 0 || access(pending(ids_path).c_str(), F_OK) != 0)
        return;
    std::optional<Error> refusal;
    if (!try_ids(pending(ids_path), model_path, print_of(model_path), refusal)) return;
    if (std::rename(pending(ids_path).c_str(), ids_path.c_str()) != 0)
        fail(ids_path, "cannot be replaced");
}

}  // namespace

void save_model(const zx_model_t& model, const IdMap& users, const IdMap& items,
                const std::string& path) {
    const std::string model_path = follow_links(path);
    const std::string ids_path = model_path + ".ids";
    AtomicFile model_file(model_path);
    zx_clear_error();
    if (zx_model_save(&model, model_file.temporary_path().c_str()) != ZX_OK)
        fail_as_recorded(path, "cannot be written", Exit::kInputOutput);
    const std::uint64_t expected_bytes = declared_length(model_file.temporary_path());
    const ModelPrint print = print_of(model_file.temporary_path());

    finish_pending(model_path);
    AtomicFile ids_file(pending(ids_path));
    ids_file.write(format_ids(print, users, items));
    ids_file.commit();
    try {
        model_file.commit(expected_bytes);
    } catch (...) {
        if (!model_file.is_in_place()) unlink(pending(ids_path).c_str());
        throw;
    }
    if (std::rename(pending(ids_path).c_str(), ids_path.c_str()) != 0)
        fail(ids_path, "cannot be replaced");
    sync_folder_of(ids_path);
}

StoredModel load_model(const std::string& path) {
    // A model that another process replaces meanwhile is looked at again, so that the model and its
    // ids are of one saving.
    for (int i = 0; i < kMaxReplacements; ++i) {
        const Identity before = identify(path);
        StoredModel stored;
        std::optional<Error> failure;
        try {
            stored = load_once(path);
        } catch (const Error& error) {
            failure = error;
        }
        if (!(identify(path) == before)) continue;
        if (failure) throw Error(*failure);
        return stored;
    }
    throw Error(Exit::kInputOutput, path + ": is being replaced all the time");
}

StoredModel load_checked_model(const std::string& path, const std::function<void()>& on_block) {
    const Identity before = identify(path);
    check_every_byte(RegularFile(path), on_block);
    StoredModel stored = load_model(path);
    if (!(identify(path) == before))
        throw Error(Exit::kInputOutput, path + ": changed while it was checked");
    return stored;
}

std::vector<std::string> model_inputs(const std::string& path) {
    std::vector<std::string> paths = {path};
    for (const std::string& place : ids_places(path)) {
        paths.push_back(place);
        paths.push_back(pending(place));
    }
    return paths;
}

std::vector<std::string> model_outputs(const std::string& path) {
    const std::string ids_path = follow_links(path) + ".ids";
    return {path, ids_path, pending(ids_path)};
}

ModelPtr light_copy(const zx_model_t& model) {
    auto* const copy = static_cast<zx_model_t*>(zx_calloc_aligned(1, sizeof(zx_model_t)));
    if (copy == nullptr) throw Error(Exit::kOutOfMemory, "no memory for a thread's scratch");
    copy->type = model.type;
    copy->name = model.name;
    copy->refcount = 1;
    copy->embedding_dim = model.embedding_dim;
    copy->num_users = model.num_users;
    copy->num_items = model.num_items;
    copy->user_embeddings = zx_tensor_retain(model.user_embeddings);
    copy->item_embeddings = zx_tensor_retain(model.item_embeddings);
    copy->user_biases = zx_tensor_retain(model.user_biases);
    copy->item_biases = zx_tensor_retain(model.item_biases);
    copy->global_bias = model.global_bias;
    copy->use_bias = model.use_bias;
    copy->training = model.training;
    return ModelPtr(copy);
}

}  // namespace zxtool
