// Kernel files and programs without a device: everything that is checked before OpenCL is asked.

#include "engine_fixture.hpp"
#include "error_record.hpp"
#include "failing_allocator.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using zx::g_engine;
using zx::test::expect_recorded;
using zx::test::expect_untouched;
using zx::test::FailingAllocator;
using zx::test::plant_record;
using zx::test::system_shim;
using zx::test::write_file;

constexpr std::size_t kLargest = 10485760;
// What follows once a file has passed all checks: there is no context to make a program in.
constexpr const char* kNoProgram = "Failed to create program from source";

class KernelFile : public zx::test::EngineTest {
  protected:
    void expect_refused(const char* path, zx_status_t code, const char* message) {
        plant_record();
        EXPECT_EQ(zx_engine_compile_kernels_file(path, nullptr), code);
        expect_recorded(code, "src/zx_engine", message);
        EXPECT_EQ(g_engine.program, nullptr);
        EXPECT_EQ(g_engine.kernels_compiled, 0);
    }
};

TEST_F(KernelFile, IsRefusedWithoutAPath) {
    expect_refused(nullptr, 3, "Kernel file path is NULL");
    start();
    expect_refused(nullptr, 3, "Kernel file path is NULL");
}

TEST_F(KernelFile, IsRefusedWhenItCannotBeOpened) {
    start();
    for (const char* path : {"missing.cl", "", "missing/folder.cl"})
        expect_refused(path, 2, "Could not open kernel file");
}

TEST_F(KernelFile, IsCheckedBeforeTheEngineIs) {
    expect_refused("missing.cl", 2, "Could not open kernel file");
    write_file("empty.cl", "");
    expect_refused("empty.cl", 102, "Kernel file size invalid or too large");
    write_file("nul.cl", std::string("a\0b", 3));
    expect_refused("nul.cl", 402, "Kernel file contains null bytes");
    write_file("good.cl", "kernel void f() {}");
    expect_refused("good.cl", 200, "");
}

TEST_F(KernelFile, IsRefusedWhenItCannotBeSought) {
    start();
    ASSERT_EQ(mkfifo("pipe.cl", 0600), 0);
    // Held open for writing, so that opening it for reading does not wait.
    const int writer = open("pipe.cl", O_RDWR);
    ASSERT_GE(writer, 0);
    expect_refused("pipe.cl", 2, "Could not seek kernel file");
    close(writer);

    write_file("good.cl", "kernel void f() {}");
    for (const int seek : {1, 2}) {
        SCOPED_TRACE(seek);
        system_shim().failing_seek = seek;
        expect_refused("good.cl", 2, "Could not seek kernel file");
    }
    system_shim().failing_seek = 3;
    expect_refused("good.cl", 206, kNoProgram);
}

TEST_F(KernelFile, IsRefusedWhenItIsAFolder) {
    start();
    ASSERT_TRUE(std::filesystem::create_directory("folder.cl"));
    plant_record();
    const zx_status_t status = zx_engine_compile_kernels_file("folder.cl", nullptr);
    // File systems differ in the step at which they notice: a folder's end is either not to be
    // found or at a position that no kernel file has.
    if (status == ZX_ERR_INVALID_ARGUMENT)
        expect_recorded(2, "src/zx_engine", "Could not seek kernel file");
    else
        expect_recorded(102, "src/zx_engine", "Kernel file size invalid or too large");
    EXPECT_EQ(status, zx_get_last_error());
}

TEST_F(KernelFile, HasBetweenOneAndTenMebibytes) {
    start();
    const struct {
        const char* when;
        std::size_t size;
        zx_status_t code;
        const char* message;
    } cases[] = {
        {"it is empty", 0, 102, "Kernel file size invalid or too large"},
        {"it has one byte", 1, 206, kNoProgram},
        {"it has the largest size", kLargest, 206, kNoProgram},
        {"it has one byte more", kLargest + 1, 102, "Kernel file size invalid or too large"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        write_file("file.cl", std::string(c.size, ' '));
        expect_refused("file.cl", c.code, c.message);
    }
}

TEST_F(KernelFile, IsRefusedWhenItsSizeCannotBeTold) {
    start();
    write_file("file.cl", "kernel void f() {}");
    for (const long position : {-1L, INT64_MIN, INT64_MAX}) {
        system_shim().position = position;
        expect_refused("file.cl", 102, "Kernel file size invalid or too large");
    }
}

TEST_F(KernelFile, MayShrinkWhileItIsRead) {
    start();
    write_file("file.cl", "kernel void f() {}");
    system_shim().position = 1000;
    expect_refused("file.cl", 206, kNoProgram);
    // The last byte is the last one read, not the last one expected.
    write_file("file.cl", std::string("ab\0", 3));
    expect_refused("file.cl", 206, kNoProgram);
    write_file("file.cl", std::string("a\0b", 3));
    expect_refused("file.cl", 402, "Kernel file contains null bytes");
}

TEST_F(KernelFile, MayHaveANulAsItsLastByteOnly) {
    start();
    const struct {
        const char* when;
        std::string text;
        zx_status_t code;
        const char* message;
    } cases[] = {
        {"the last byte", std::string("void f();\0", 10), 206, kNoProgram},
        {"the only byte", std::string("\0", 1), 206, kNoProgram},
        {"the last but one", std::string("void f();\0 ", 11), 402,
         "Kernel file contains null bytes"},
        {"the last two", std::string("void f();\0\0", 11), 402, "Kernel file contains null bytes"},
        {"the first", std::string("\0void f();", 10), 402, "Kernel file contains null bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        write_file("file.cl", c.text);
        expect_refused("file.cl", c.code, c.message);
    }
}

TEST_F(KernelFile, NeedsMemoryForItsText) {
    start();
    write_file("file.cl", "kernel void f() {}");
    const FailingAllocator failing(1);
    expect_refused("file.cl", 100, "");
    EXPECT_TRUE(failing.failed());
}

TEST_F(KernelFile, IsMeasuredBeforeMemoryIsAskedFor) {
    start();
    write_file("file.cl", std::string(kLargest + 1, ' '));
    const FailingAllocator failing(1);
    expect_refused("file.cl", 102, "Kernel file size invalid or too large");
    EXPECT_FALSE(failing.failed());
}

class Program : public zx::test::EngineTest {};

TEST_F(Program, NeedsTheEngine) {
    for (const char* source : {static_cast<const char*>(nullptr), "kernel void f() {}"}) {
        plant_record();
        EXPECT_EQ(zx_engine_compile_kernels(source, nullptr), ZX_ERR_ENGINE_NOT_INITIALIZED);
        expect_recorded(200, "src/zx_engine", "");
    }
}

TEST_F(Program, NeedsAContext) {
    start();
    for (const char* source : {static_cast<const char*>(nullptr), "", "kernel void f() {}"}) {
        plant_record();
        EXPECT_EQ(zx_engine_compile_kernels(source, nullptr), ZX_ERR_KERNEL_COMPILE);
        expect_recorded(206, "src/zx_engine", kNoProgram);
        EXPECT_EQ(g_engine.program, nullptr);
        EXPECT_EQ(g_engine.kernels_compiled, 0);
    }
}

TEST_F(Program, HasNoKernelsBeforeItIsBuilt) {
    plant_record();
    EXPECT_EQ(zx_kernel_get("f"), nullptr);
    EXPECT_EQ(zx_kernel_get(nullptr), nullptr);
    start();
    EXPECT_EQ(zx_kernel_get("f"), nullptr);
    EXPECT_EQ(zx_kernel_get(nullptr), nullptr);
    expect_untouched();
}

}  // namespace
