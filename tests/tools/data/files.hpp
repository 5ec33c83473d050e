// Files for tests, and what the tool reads out of them.
#pragma once

#include "error.hpp"
#include "interactions.hpp"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

namespace zxtool::test {

// An empty folder that goes with its contents.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = "data-test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) std::abort();
        path_ = name;
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] std::string operator/(const std::string& name) const {
        return (path_ / name).string();
    }
    // How many files and folders are in it.
    [[nodiscard]] std::ptrdiff_t count() const {
        return std::distance(std::filesystem::directory_iterator(path_),
                             std::filesystem::directory_iterator());
    }

  private:
    std::filesystem::path path_;
};

inline void write_file(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

inline std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A row with its ids as the file has them.
struct Row {
    std::string user;
    std::string item;
    float rating = 0.0F;
    std::int64_t timestamp = 0;
    bool operator==(const Row& other) const = default;
};
using Rows = std::vector<Row>;

inline std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.user << '|' << row.item << '|' << row.rating << '|' << row.timestamp;
}

inline Rows rows_of(const Interactions& rows, const IdMap& users, const IdMap& items) {
    Rows result;
    for (std::size_t i = 0; i < rows.size(); ++i)
        result.push_back({std::string(users.name(rows.users[i])),
                          std::string(items.name(rows.items[i])),
                          rows.ratings.empty() ? 0.0F : rows.ratings[i],
                          rows.timestamps.empty() ? 0 : rows.timestamps[i]});
    return result;
}

inline Rows rows_of(const InteractionFile& file) {
    return rows_of(file.rows, file.users, file.items);
}

// Reads a text under a file name, which matters for the format and for messages.
inline InteractionFile read_text(const std::string& text, const std::string& name = "x.csv",
                                 const ReadOptions& options = {}) {
    const TemporaryFolder folder;
    write_file(folder / name, text);
    return read_interactions(folder / name, options);
}

// What an action throws, as "status: text"; "nothing" if it throws nothing.
inline std::string failure_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& error) {
        return std::to_string(static_cast<int>(error.status())) + ": " + error.what();
    }
    return "nothing";
}

// The same for reading a text, without the folder that the file is in.
inline std::string refusal_of(const std::string& text, const std::string& name = "x.csv",
                              const ReadOptions& options = {}) {
    const TemporaryFolder folder;
    write_file(folder / name, text);
    std::string failure = failure_of([&] { read_interactions(folder / name, options); });
    const std::string prefix = folder / "";
    const std::size_t at = failure.find(prefix);
    if (at != std::string::npos) failure.erase(at, prefix.size());
    return failure;
}

}  // namespace zxtool::test
