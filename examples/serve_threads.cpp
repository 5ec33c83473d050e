// Saves a model, loads it, and answers many users' requests from several threads.
//
// zx_recommend() keeps scratch memory in the model's record, so that one record serves one thread
// at a time. Each thread therefore has a record of its own, a view: it shares the tables by their
// reference counts, which change atomically, and costs no more than the scratch.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>
#include <zorvex.h>

namespace {

constexpr std::uint32_t kReaders = 600;
constexpr std::uint32_t kBooks = 400;
constexpr std::uint32_t kShelves = 8;
constexpr std::uint32_t kThreads = 4;
constexpr std::uint32_t kBest = 5;

struct Answer {
    zx_status_t status = ZX_OK;
    std::array<std::uint32_t, kBest> books{};
    std::array<float, kBest> scores{};

    bool operator==(const Answer& other) const {
        return status == other.status && books == other.books && scores == other.scores;
    }
};

struct Release {
    void operator()(zx_model_t* model) const { zx_model_release(model); }
};
using Model = std::unique_ptr<zx_model_t, Release>;

// Readers borrow from one shelf, every third book of it.
bool trains(zx_model_t* model) {
    std::vector<std::uint32_t> books;
    std::vector<std::uint32_t> begins = {0};
    for (std::uint32_t reader = 0; reader < kReaders; ++reader) {
        for (std::uint32_t n = 0; n < kBooks / kShelves; ++n)
            if ((n + reader) % 3 == 0) books.push_back(reader % kShelves + n * kShelves);
        begins.push_back(static_cast<std::uint32_t>(books.size()));
    }
    const auto entries = static_cast<std::uint32_t>(books.size());
    zx_sparse_t* const borrowed = zx_sparse_create(kReaders, kBooks, entries);
    if (borrowed == nullptr) return false;
    std::copy(books.begin(), books.end(), zx_sparse_col_idx(borrowed));
    std::copy(begins.begin(), begins.end(), zx_sparse_row_ptr(borrowed));
    std::fill_n(zx_sparse_values(borrowed), entries, 1.0F);

    bool good = true;
    for (int epoch = 0; epoch < 8 && good; ++epoch)
        good = zx_model_train_als_epoch(model, borrowed, 1, 10.0F, 30.0F) == ZX_OK;
    zx_sparse_release(borrowed);
    return good;
}

// A thread's own record over the tables of a model: a copy of the record that shares the tensors
// and has its own, still empty, scratch. It comes from the library's allocator, because the last
// release gives it back there.
Model view_of(const zx_model_t& model) {
    auto* const view = static_cast<zx_model_t*>(zx_calloc_aligned(1, sizeof(zx_model_t)));
    if (view == nullptr) return nullptr;
    *view = model;
    view->refcount = 1;
    view->score_buf = nullptr;
    view->score_buf_cap = 0;
    view->heap_buf = nullptr;
    view->heap_buf_cap = 0;
    view->gather_buf = nullptr;
    view->gather_buf_cap = 0;
    view->aux_tensor = nullptr;
    for (zx_tensor_t* tensor :
         {view->user_embeddings, view->item_embeddings, view->user_biases, view->item_biases})
        zx_tensor_retain(tensor);  // null is ignored
    return Model(view);
}

// Answers the requests of every so-manieth reader. The error record is the thread's own, so that an
// answer carries its status to whoever asked.
void serve(zx_model_t* view, std::uint32_t first, std::uint32_t step,
           std::vector<Answer>& answers) {
    for (std::uint32_t reader = first; reader < kReaders; reader += step) {
        Answer& answer = answers[reader];
        answer.status =
            zx_recommend(view, reader, kBest, answer.books.data(), answer.scores.data());
    }
}

// Joins its thread when it goes: a thread that cannot start throws, and those before it are waited
// for on the way out.
class JoiningThread {
  public:
    explicit JoiningThread(std::thread thread) : thread_(std::move(thread)) {}
    JoiningThread(JoiningThread&&) = default;
    JoiningThread& operator=(JoiningThread&&) = delete;
    ~JoiningThread() {
        if (thread_.joinable()) thread_.join();
    }

  private:
    std::thread thread_;
};

bool serve_from_threads(const zx_model_t& model, std::vector<Answer>& answers) {
    // Views are made before the threads, so that a failure is seen before one of them runs.
    std::vector<Model> views;
    for (std::uint32_t thread = 0; thread < kThreads; ++thread) {
        views.push_back(view_of(model));
        if (!views.back()) return false;
    }
    std::vector<JoiningThread> threads;
    threads.reserve(kThreads);
    for (std::uint32_t thread = 0; thread < kThreads; ++thread)
        threads.emplace_back(
            std::thread(serve, views[thread].get(), thread, kThreads, std::ref(answers)));
    return true;  // the threads are joined first, and then the views released
}

// Saves under a new name first, so that a save that fails leaves the model that is there alone.
bool save(const zx_model_t* model, const std::string& path) {
    const std::string fresh = path + ".new";
    if (zx_model_save(model, fresh.c_str()) == ZX_OK) {
        if (std::rename(fresh.c_str(), path.c_str()) == 0) return true;
        std::cerr << "serve_threads: cannot rename " << fresh << '\n';
    }
    (void)std::remove(fresh.c_str());
    return false;
}

bool run(const char* path) {
    zx_set_verbosity(0);  // process-wide: set before threads start
    zx_rng_seed(1);
    {
        const Model trained(zx_model_mf_create(kReaders, kBooks, 16, false));
        if (!trained || !trains(trained.get()) || !save(trained.get(), path)) return false;
    }
    const Model model(zx_model_load(path));
    if (!model) return false;
    std::printf("loaded %u readers and %u books\n", model->num_users, model->num_items);

    std::vector<Answer> answers(kReaders);
    if (!serve_from_threads(*model, answers)) return false;
    std::vector<Answer> alone(kReaders);
    serve(model.get(), 0, 1, alone);

    std::uint32_t same = 0;
    std::uint32_t right = 0;
    for (std::uint32_t reader = 0; reader < kReaders; ++reader) {
        if (answers[reader].status != ZX_OK) return false;
        if (answers[reader] == alone[reader]) ++same;
        for (const std::uint32_t book : answers[reader].books)
            if (book % kShelves == reader % kShelves) ++right;
    }
    std::printf("%u threads, %u answers, %u of them as from one thread\n", kThreads, kReaders,
                same);
    std::printf("%u of %u recommended books are of the reader's shelf\n", right, kReaders * kBest);
    return same == kReaders;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: serve_threads MODEL_FILE\n";
        return 2;
    }
    try {
        if (run(argv[1])) return EXIT_SUCCESS;
        std::cerr << "serve_threads: failed\n";
        zx_print_error();
    } catch (const std::system_error& failure) {
        std::cerr << "serve_threads: cannot start a thread: " << failure.what() << '\n';
    }
    return EXIT_FAILURE;
}
