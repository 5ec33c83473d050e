// The bytes of an input: a file, standard input, or a gzip file decompressed on the way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// zlib's own declaration of the file it reads, so that its header stays out of this one.
struct gzFile_s;

namespace zxtool {

class ByteSource {
  public:
    // Opens a path; "-" is standard input, and gzip is expected when the name ends in .gz.
    // `on_signal` may be empty; it is called when a signal interrupts a wait for bytes. Throws
    // Error(kInputOutput).
    ByteSource(const std::string& path, std::function<void()> on_signal);
    ~ByteSource();
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;

    // Reads up to `size` bytes; 0 at the end. Throws Error: kInputOutput, and kBadInput for gzip
    // data that is damaged or cut off.
    std::size_t read(char* out, std::size_t size);

    // What messages call the input.
    [[nodiscard]] const std::string& name() const { return name_; }
    // Bytes of an uncompressed regular file, 0 when they are not known.
    [[nodiscard]] std::uint64_t size_hint() const { return size_hint_; }

  private:
    std::size_t read_plain(char* out, std::size_t size);
    std::size_t read_gzip(char* out, std::size_t size);

    std::string name_;
    std::function<void()> on_signal_;
    int descriptor_ = -1;  // of a plain input
    gzFile_s* gzip_ = nullptr;
    std::uint64_t size_hint_ = 0;
};

}  // namespace zxtool
