// A file that is there whole or not at all: written beside its target, checked, flushed to disk,
// then renamed over it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace zxtool {

class AtomicFile {
  public:
    // Creates a temporary file in the folder of `target`, with the permissions of any new file. A
    // target that is a symbolic link stands for what it points to. Throws Error(kInputOutput), also
    // for a target that exists and is no regular file.
    explicit AtomicFile(const std::string& target);
    // Removes the temporary file unless commit() was called.
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // The temporary file's path, for a writer that opens files by name.
    [[nodiscard]] const std::string& temporary_path() const { return temporary_; }
    // The temporary file, for writing through buffered output.
    [[nodiscard]] std::FILE* stream() { return stream_; }
    void write(std::string_view bytes);

    // Ends the writing: checks that the file is as long as what went through stream() and flushes
    // it to disk. Throws Error(kInputOutput).
    void settle();
    // The same for a file written by name, which must be `expected_bytes` long.
    void settle(std::uint64_t expected_bytes);
    // Renames a settled file over the target. Throws Error(kInputOutput); unless is_in_place(), the
    // target is then what it was.
    void place();

    // Both steps.
    void commit();
    void commit(std::uint64_t expected_bytes);
    // Whether the file is in the target's place. It may be there although commit() threw, when only
    // the flushing of the folder failed.
    [[nodiscard]] bool is_in_place() const { return temporary_.empty(); }

  private:
    std::string target_;
    std::string temporary_;
    std::FILE* stream_ = nullptr;
};

// What a path stands for when it is a symbolic link, also one that points to nothing yet.
std::string follow_links(const std::string& path);

// Flushes the folder of a path to disk, so that a rename in it lasts. Throws Error(kInputOutput).
void sync_folder_of(const std::string& path);

}  // namespace zxtool
