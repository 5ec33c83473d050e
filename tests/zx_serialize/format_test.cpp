// Telling formats apart: by name first, by the first bytes otherwise.

#include "file_fixture.hpp"

#include <string>

namespace zx::test {
namespace {

using std::string_literals::operator""s;

class DetectFormat : public FileTest {};

// No such file exists: the name decides alone.
TEST_F(DetectFormat, GoesByTheName) {
    const struct {
        const char* path;
        zx_format_t format;
    } cases[] = {
        {"model.zxm", 1},
        {"model.npy", 2},
        {"model.safetensors", 3},
        {"model.json", 5},
        {"model.bin", 4},
        {"weights.raw", 4},
        {"archive.tar.npy", 2},
        {"no-such-folder/m.zxm", 1},
        {".zxm", 1},
        {"some.folder/m.npy", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        plant_record();
        EXPECT_EQ(zx_detect_format(c.path), c.format);
        expect_untouched();
    }
}

TEST_F(DetectFormat, BelievesTheNameWhateverTheContent) {
    for (const char* path : {"m.raw", "m.bin"}) {
        write_file(path, "ZXQM and more");
        EXPECT_EQ(zx_detect_format(path), ZX_FORMAT_RAW);
    }
}

TEST_F(DetectFormat, GoesByTheFirstBytesWhereTheNameDoesNotSay) {
    const struct {
        const char* when;
        std::string content;
        zx_format_t format;
    } cases[] = {
        {"a model file", "ZXQM\1\0\0\0\0\0"s, 1},
        {"eight bytes of one", "ZXQM\1\0\0\0"s, 1},
        {"seven bytes of one", "ZXQM\1\0\0"s, 0},
        {"an array", "\x93NUMPY\1\0v\0"s, 2},
        {"seven bytes of an array", "\x93NUMPY\1"s, 0},
        {"an array's magic with one other letter", "\x93NUMPX\1\0v\0"s, 0},
        {"JSON", "{\"a\": 1}"s, 5},
        {"seven bytes of it", "{\"a\":1}"s, 0},
        {"short JSON", "{}"s, 0},
        {"JSON behind a space", " {\"a\": 1}"s, 0},
        {"a safetensors file", "\x48\0\0\0\0\0\0\0{\"a\""s, 0},
        {"one whose header length begins like JSON", "\x7b\0\0\0\0\0\0\0{\"a\""s, 5},
        {"a magic in small letters", "zxqm\1\0\0\0"s, 0},
        {"the magic's first three bytes", "ZXQN\1\0\0\0"s, 0},
        {"zeros", std::string(64, '\0'), 0},
        {"nothing", ""s, 0},
    };
    for (const char* path :
         {"plain", "model.ZXM", "data.npy.bak", "m.zxm2", "m.zx", "m.", "a.npy/plain"}) {
        SCOPED_TRACE(path);
        for (const auto& c : cases) {
            SCOPED_TRACE(c.when);
            write_file(path, c.content);
            plant_record();
            EXPECT_EQ(closing_files([&] { return zx_detect_format(path); }), c.format);
            expect_untouched();
        }
    }
}

TEST_F(DetectFormat, KnowsNothingOfWhatItCannotRead) {
    plant_record();
    EXPECT_EQ(zx_detect_format(nullptr), ZX_FORMAT_UNKNOWN);
    for (const char* path : {"", "absent", "absent.txt", "no-such-folder/plain", ".", ".."}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(closing_files([&] { return zx_detect_format(path); }), ZX_FORMAT_UNKNOWN);
    }
    expect_untouched();
}

TEST(FormatExtension, IsTheOneThatFilesAreGiven) {
    const char* const extensions[] = {"", ".zxm", ".npy", ".safetensors", ".bin", ".json", "", ""};
    for (zx_format_t format = 0; format < 8; ++format) {
        SCOPED_TRACE(format);
        plant_record();
        EXPECT_STREQ(zx_format_extension(format), extensions[format]);
        expect_untouched();
    }
    EXPECT_STREQ(zx_format_extension(0xffffffff), "");
}

}  // namespace
}  // namespace zx::test
