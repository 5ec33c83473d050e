// Trains a model by alternating least squares (ALS) from a sparse matrix in CSR form, which it
// makes from a list of events in any order, and looks at what the model says.
//
// Three hundred listeners prefer one of six genres of thirty songs each, and now and then play
// something else. How often somebody played a song is the strength of the entry.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>
#include <zorvex.h>

namespace {

constexpr std::uint32_t kListeners = 300;
constexpr std::uint32_t kGenres = 6;
constexpr std::uint32_t kSongsOfGenre = 30;
constexpr std::uint32_t kSongs = kGenres * kSongsOfGenre;
constexpr std::uint32_t kPlaysEach = 25;

struct Play {
    std::uint32_t listener;
    std::uint32_t song;
};

// The library's objects are reference-counted; a unique_ptr holds one reference.
struct Release {
    void operator()(zx_model_t* model) const { zx_model_release(model); }
    void operator()(zx_sparse_t* matrix) const { zx_sparse_release(matrix); }
};
using Model = std::unique_ptr<zx_model_t, Release>;
using Matrix = std::unique_ptr<zx_sparse_t, Release>;

// Throws what the library says about a failed step: the text in the thread's error record, or the
// name of the status when the failure is one that is not recorded.
[[noreturn]] void fail(const std::string& step, zx_status_t status) {
    const zx_error_context_t* record = zx_get_error_context();
    const bool recorded = record->code == status && record->message[0] != '\0';
    throw std::runtime_error(step + ": " + (recorded ? record->message : zx_status_string(status)));
}

void check(const std::string& step, zx_status_t status) {
    if (status != ZX_OK) fail(step, status);
}

// For what makes an object and gives null when it fails. The one failure that may not be recorded
// is that the object's own record finds no memory.
void check_made(const std::string& step, const void* object) {
    if (object != nullptr) return;
    const zx_status_t recorded = zx_get_last_error();
    fail(step, recorded != ZX_OK ? recorded : ZX_ERR_OUT_OF_MEMORY);
}

// A number from 0 to count - 1; zx_rng_uniform() may give exactly 1.
std::uint32_t draw(std::uint32_t count) {
    const auto number = static_cast<std::uint32_t>(zx_rng_uniform() * static_cast<float>(count));
    return std::min(number, count - 1);
}

std::uint32_t favourite_genre(std::uint32_t listener) {
    return listener % kGenres;
}

std::vector<Play> plays() {
    std::vector<Play> all;
    for (std::uint32_t n = 0; n < kListeners * kPlaysEach; ++n) {
        const std::uint32_t listener = draw(kListeners);
        const bool favourite = zx_rng_uniform() < 0.8F;
        const std::uint32_t genre = favourite ? favourite_genre(listener) : draw(kGenres);
        all.push_back({listener, genre * kSongsOfGenre + draw(kSongsOfGenre)});
    }
    return all;
}

// A CSR matrix has its entries row after row, their columns increasing within each, and every pair
// once; row_ptr says where each row begins, and has one number more than there are rows. A map in
// the order of its keys brings the events into that form.
Matrix to_matrix(const std::vector<Play>& plays) {
    std::map<std::pair<std::uint32_t, std::uint32_t>, float> counts;
    for (const Play& play : plays) counts[{play.listener, play.song}] += 1.0F;

    Matrix matrix(zx_sparse_create(kListeners, kSongs, static_cast<std::uint32_t>(counts.size())));
    check_made("making the matrix", matrix.get());
    std::uint32_t* const row_ptr = zx_sparse_row_ptr(matrix.get());
    std::uint32_t entry = 0;
    for (const auto& [pair, count] : counts) {
        zx_sparse_col_idx(matrix.get())[entry] = pair.second;
        zx_sparse_values(matrix.get())[entry] = count;
        ++entry;
        ++row_ptr[pair.first + 1];  // for now, how many entries the row has
    }
    std::partial_sum(row_ptr, row_ptr + kListeners + 1, row_ptr);
    check("checking the matrix", zx_sparse_validate(matrix.get()));
    return matrix;
}

void train(zx_model_t* model, const zx_sparse_t* played) {
    constexpr float kAlpha = 10.0F;           // confidence of an entry: 1 + alpha * count
    constexpr float kRegularization = 50.0F;  // holds the noise down
    for (int epoch = 0; epoch < 10; ++epoch)
        check("training", zx_model_train_als_epoch(model, played, 1, kAlpha, kRegularization));
}

void print_best_songs(zx_model_t* model, std::uint32_t listener) {
    constexpr std::uint32_t kBest = 5;
    std::vector<std::uint32_t> songs(kBest);
    std::vector<float> scores(kBest);
    check("recommending", zx_recommend(model, listener, kBest, songs.data(), scores.data()));
    std::printf("listener %u of genre %u\n", listener, favourite_genre(listener));
    for (std::uint32_t n = 0; n < kBest; ++n)
        std::printf("  song %3u of genre %u, score %.3f\n", songs[n], songs[n] / kSongsOfGenre,
                    static_cast<double>(scores[n]));
}

// A genre's score for a listener: the mean of the scores of its songs, which are scored as a list.
std::vector<double> genre_scores(zx_model_t* model, std::uint32_t listener) {
    std::vector<double> means;
    for (std::uint32_t genre = 0; genre < kGenres; ++genre) {
        std::vector<std::uint32_t> songs(kSongsOfGenre);
        std::iota(songs.begin(), songs.end(), genre * kSongsOfGenre);
        std::vector<float> scores(songs.size());
        check("scoring a list",
              zx_model_score_items(model, listener, songs.data(), kSongsOfGenre, scores.data()));
        means.push_back(std::accumulate(scores.begin(), scores.end(), 0.0) / kSongsOfGenre);
    }
    return means;
}

void run() {
    zx_rng_seed(1);  // the same events and the same model every time
    const Matrix played = to_matrix(plays());
    std::printf("%u listeners, %u songs, %u entries\n", played->rows, played->cols, played->nnz);

    const Model model(zx_model_mf_create(kListeners, kSongs, 16, false));
    check_made("making the model", model.get());
    train(model.get(), played.get());
    print_best_songs(model.get(), 0);
    print_best_songs(model.get(), 100);

    std::uint32_t found = 0;
    for (std::uint32_t listener = 0; listener < kListeners; ++listener) {
        const std::vector<double> scores = genre_scores(model.get(), listener);
        const auto best = std::max_element(scores.begin(), scores.end());
        if (best - scores.begin() == favourite_genre(listener)) ++found;
    }
    std::printf("favourite genre found for %u of %u listeners\n", found, kListeners);
}

}  // namespace

int main() {
    try {
        run();
    } catch (const std::exception& failure) {
        std::cerr << "train_als: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
