// Which format a file has: its name says so, or else its first bytes.

#include "common/owned.hpp"
#include "zorvex.h"
#include "zx_serialize/model_format.hpp"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

struct Extension {
    std::string_view text;
    zx_format_t format;
};

// The first extension of a format is the one that it is given.
constexpr Extension kExtensions[] = {
    {".zxm", ZX_FORMAT_NATIVE}, {".npy", ZX_FORMAT_NPY}, {".safetensors", ZX_FORMAT_SAFETENSORS},
    {".json", ZX_FORMAT_JSON},  {".bin", ZX_FORMAT_RAW}, {".raw", ZX_FORMAT_RAW},
};

// A safetensors file begins with the length of its header, which says nothing.
zx_format_t format_of(std::string_view first_bytes) {
    using std::string_view_literals::operator""sv;
    if (first_bytes.starts_with(std::string_view(zx::kModelMagic, sizeof(zx::kModelMagic))))
        return ZX_FORMAT_NATIVE;
    if (first_bytes.starts_with("\x93NUMPY"sv)) return ZX_FORMAT_NPY;
    if (first_bytes.starts_with("{"sv)) return ZX_FORMAT_JSON;
    return ZX_FORMAT_UNKNOWN;
}

}  // namespace

zx_format_t zx_detect_format(const char* path) {
    if (!path) return ZX_FORMAT_UNKNOWN;
    if (const char* const dot = std::strrchr(path, '.'))
        for (const Extension& extension : kExtensions)
            if (extension.text == dot) return extension.format;

    const zx::File file(std::fopen(path, "rb"));
    char first_bytes[8];
    if (!file || std::fread(first_bytes, 1, sizeof(first_bytes), file.get()) != sizeof(first_bytes))
        return ZX_FORMAT_UNKNOWN;
    return format_of({first_bytes, sizeof(first_bytes)});
}

const char* zx_format_extension(zx_format_t format) {
    for (const Extension& extension : kExtensions)
        if (extension.format == format) return extension.text.data();
    return "";
}
