// Status texts and the per-thread error record: filling, reading, printing and clearing it.

#include "capture.hpp"
#include "error_record.hpp"
#include "zorvex.h"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace {

using zx::test::Console;
using zx::test::console_of;

struct Status {
    zx_status_t code;
    const char* text;
};

// clang-format off
constexpr Status kStatuses[] = {
    {0, "Success"},
    {1, "Unknown error"},
    {2, "Invalid argument"},
    {3, "Null pointer"},
    {4, "Index out of bounds"},
    {5, "Arithmetic overflow"},
    {100, "Out of memory"},
    {101, "Memory allocation failed"},
    {102, "Buffer too small"},
    {103, "Memory alignment failed"},
    {200, "Engine not initialized"},
    {201, "Engine already initialized"},
    {202, "No OpenCL platform found"},
    {203, "No OpenCL device found"},
    {204, "Failed to create OpenCL context"},
    {205, "Failed to create command queue"},
    {206, "Kernel compilation failed"},
    {207, "Kernel execution failed"},
    {208, "Failed to create GPU buffer"},
    {209, "Failed to transfer data to/from GPU"},
    {300, "Invalid model"},
    {301, "Model not configured"},
    {302, "Model type mismatch"},
    {303, "Invalid layer"},
    {304, "Dimension mismatch"},
    {305, "Training failed"},
    {400, "Invalid matrix"},
    {401, "Invalid sparse matrix format"},
    {402, "Data corrupted"},
    {500, "Failed to open file"},
    {501, "Failed to read file"},
    {502, "Failed to write file"},
    {503, "Version mismatch"},
    {504, "Invalid file format"},
};
// clang-format on

TEST(StatusString, NamesEveryCodeAndNoOtherNumber) {
    std::string texts[1001];
    for (std::string& text : texts) text = "Unknown error code";
    for (const Status& status : kStatuses) texts[status.code] = status.text;
    for (zx_status_t code = 0; code <= 1000; ++code)
        EXPECT_EQ(zx_status_string(code), texts[code]) << code;
}

TEST(StatusString, CallsNumbersThatAreNoCodesUnknownErrorCodes) {
    for (const zx_status_t code : {-1, -2, -100, -300, INT32_MIN, INT32_MAX, 65536, 1 << 30})
        EXPECT_STREQ(zx_status_string(code), "Unknown error code") << code;
}

TEST(StatusString, GoesWithTheConstants) {
    // clang-format off
    const Status constants[] = {
        {ZX_OK, "Success"},
        {ZX_ERR_UNKNOWN, "Unknown error"},
        {ZX_ERR_INVALID_ARGUMENT, "Invalid argument"},
        {ZX_ERR_NULL_POINTER, "Null pointer"},
        {ZX_ERR_INDEX_OUT_OF_BOUNDS, "Index out of bounds"},
        {ZX_ERR_OVERFLOW, "Arithmetic overflow"},
        {ZX_ERR_OUT_OF_MEMORY, "Out of memory"},
        {ZX_ERR_ALLOCATION_FAILED, "Memory allocation failed"},
        {ZX_ERR_BUFFER_TOO_SMALL, "Buffer too small"},
        {ZX_ERR_ALIGNMENT, "Memory alignment failed"},
        {ZX_ERR_ENGINE_NOT_INITIALIZED, "Engine not initialized"},
        {ZX_ERR_ENGINE_ALREADY_INITIALIZED, "Engine already initialized"},
        {ZX_ERR_NO_PLATFORM, "No OpenCL platform found"},
        {ZX_ERR_NO_DEVICE, "No OpenCL device found"},
        {ZX_ERR_CONTEXT_CREATE, "Failed to create OpenCL context"},
        {ZX_ERR_QUEUE_CREATE, "Failed to create command queue"},
        {ZX_ERR_KERNEL_COMPILE, "Kernel compilation failed"},
        {ZX_ERR_KERNEL_EXEC, "Kernel execution failed"},
        {ZX_ERR_BUFFER_CREATE, "Failed to create GPU buffer"},
        {ZX_ERR_TRANSFER, "Failed to transfer data to/from GPU"},
        {ZX_ERR_INVALID_MODEL, "Invalid model"},
        {ZX_ERR_MODEL_NOT_CONFIGURED, "Model not configured"},
        {ZX_ERR_MODEL_TYPE_MISMATCH, "Model type mismatch"},
        {ZX_ERR_INVALID_LAYER, "Invalid layer"},
        {ZX_ERR_DIMENSION_MISMATCH, "Dimension mismatch"},
        {ZX_ERR_TRAINING_FAILED, "Training failed"},
        {ZX_ERR_INVALID_MATRIX, "Invalid matrix"},
        {ZX_ERR_INVALID_SPARSE, "Invalid sparse matrix format"},
        {ZX_ERR_DATA_CORRUPTED, "Data corrupted"},
        {ZX_ERR_FILE_OPEN, "Failed to open file"},
        {ZX_ERR_FILE_READ, "Failed to read file"},
        {ZX_ERR_FILE_WRITE, "Failed to write file"},
        {ZX_ERR_VERSION_MISMATCH, "Version mismatch"},
        {ZX_ERR_INVALID_FORMAT, "Invalid file format"},
    };
    // clang-format on
    static_assert(sizeof(constants) == sizeof(kStatuses));
    for (std::size_t i = 0; i < std::size(constants); ++i) {
        EXPECT_EQ(constants[i].code, kStatuses[i].code) << constants[i].text;
        EXPECT_STREQ(zx_status_string(constants[i].code), constants[i].text);
    }
}

TEST(ErrorRecord, IsEmptyInANewThread) {
    std::thread([] {
        const zx_error_context_t* record = zx_get_error_context();
        EXPECT_EQ(record->code, 0);
        EXPECT_EQ(record->file, nullptr);
        EXPECT_EQ(record->line, 0);
        for (const char byte : record->message) EXPECT_EQ(byte, '\0');
        EXPECT_EQ(zx_get_last_error(), 0);
    }).join();
}

TEST(ErrorRecord, KeepsCodeFileLineAndMessage) {
    static const char file[] = "src/zx_memory";
    char message[] = "a message that changes later";
    zx_set_error_internal(402, file, 108, message);
    message[0] = 'X';
    const zx_error_context_t* record = zx_get_error_context();
    EXPECT_EQ(record->code, 402);
    EXPECT_EQ(record->file, file);  // the text itself is not copied
    EXPECT_EQ(record->line, 108);
    EXPECT_STREQ(record->message, "a message that changes later");
    EXPECT_EQ(zx_get_last_error(), 402);
}

TEST(ErrorRecord, CutsAMessageAtTwoHundredAndFiftyFiveCharacters) {
    for (const std::size_t length : {254U, 255U, 256U, 257U, 300U, 5000U}) {
        SCOPED_TRACE(length);
        std::string message;
        for (std::size_t i = 0; i < length; ++i)
            message += static_cast<char>('a' + static_cast<int>(i % 26));
        zx_set_error_internal(1, "f", 1, message.c_str());
        const std::size_t kept = length < 255 ? length : 255;
        EXPECT_EQ(std::string(zx_get_error_context()->message), message.substr(0, kept));
        EXPECT_EQ(zx_get_error_context()->message[255], '\0');
    }
}

TEST(ErrorRecord, FillsTheRestOfTheMessageWithZeros) {
    zx_set_error_internal(1, "f", 1, std::string(300, 'z').c_str());
    zx_set_error_internal(2, "f", 1, "short");
    const char* message = zx_get_error_context()->message;
    EXPECT_STREQ(message, "short");
    for (int i = 5; i < 256; ++i) EXPECT_EQ(message[i], '\0') << i;
}

TEST(ErrorRecord, IsOverwrittenAsAWhole) {
    zx_set_error_internal(402, "src/zx_memory", 108, "the first");
    zx_set_error_internal(5, nullptr, 0, nullptr);
    const zx_error_context_t* record = zx_get_error_context();
    EXPECT_EQ(record->code, 5);
    EXPECT_EQ(record->file, nullptr);
    EXPECT_EQ(record->line, 0);
    EXPECT_STREQ(record->message, "");
}

TEST(ErrorRecord, StaysWhereItIsAndShowsLaterFailures) {
    const zx_error_context_t* record = zx_get_error_context();
    zx_set_error_internal(7, "f", 1, "one");
    EXPECT_EQ(record, zx_get_error_context());
    EXPECT_EQ(record->code, 7);
    zx_set_error_internal(8, "f", 1, "two");
    EXPECT_EQ(record->code, 8);
    EXPECT_STREQ(record->message, "two");
}

TEST(ErrorRecord, IsClearedButForTheTailOfTheMessage) {
    zx_set_error_internal(402, "src/zx_memory", 108, "abc");
    zx_clear_error();
    const zx_error_context_t* record = zx_get_error_context();
    EXPECT_EQ(record->code, 0);
    EXPECT_EQ(record->file, nullptr);
    EXPECT_EQ(record->line, 0);
    EXPECT_EQ(std::memcmp(record->message, "\0bc", 4), 0);
    EXPECT_EQ(zx_get_last_error(), 0);
}

TEST(ErrorRecord, IsKeptByASuccess) {
    zx::test::plant_record();
    zx_tensor_t* tensor = zx_tensor_create_1d(3);
    ASSERT_NE(tensor, nullptr);
    zx_tensor_release(tensor);
    zx::test::expect_untouched();
}

TEST(ErrorRecord, BelongsToItsThread) {
    zx_clear_error();
    std::thread([] {
        zx_set_error_internal(402, "src/zx_memory", 1, "of the other thread");
        EXPECT_EQ(zx_get_last_error(), 402);
    }).join();
    EXPECT_EQ(zx_get_last_error(), 0);

    zx::test::plant_record();
    const zx_error_context_t* mine = zx_get_error_context();
    std::thread([mine] {
        EXPECT_NE(zx_get_error_context(), mine);
        zx_clear_error();
    }).join();
    zx::test::expect_untouched();
}

TEST(PrintError, WritesWhatTheRecordHolds) {
    const struct {
        const char* when;
        zx_status_t code;
        int line;
        const char* file;
        const char* message;
        const char* printed;
    } cases[] = {
        {"everything is there", 100, 42, "src/zx_memory", "Failed to allocate tensor",
         "[ZORVEX ERROR] Out of memory (code 100)\n"
         "  at src/zx_memory:42\n"
         "  Failed to allocate tensor\n"},
        {"there is no message", 5, 108, "src/zx_memory", nullptr,
         "[ZORVEX ERROR] Arithmetic overflow (code 5)\n"
         "  at src/zx_memory:108\n"},
        {"the message is empty", 5, 108, "src/zx_memory", "",
         "[ZORVEX ERROR] Arithmetic overflow (code 5)\n"
         "  at src/zx_memory:108\n"},
        {"there is no file", 3, 7, nullptr, "text",
         "[ZORVEX ERROR] Null pointer (code 3)\n"
         "  text\n"},
        {"there is neither", 3, 7, nullptr, "", "[ZORVEX ERROR] Null pointer (code 3)\n"},
        {"the code is unknown", -9, -1, "f", "m",
         "[ZORVEX ERROR] Unknown error code (code -9)\n"
         "  at f:-1\n"
         "  m\n"},
        {"the texts look like formats", 1, 1, "%s%n", "100%d",
         "[ZORVEX ERROR] Unknown error (code 1)\n"
         "  at %s%n:1\n"
         "  100%d\n"},
        {"the code is 0 in spite of a message", 0, 1, "f", "m", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.when);
        zx_set_error_internal(c.code, c.file, c.line, c.message);
        const Console console = console_of([] { zx_print_error(); });
        EXPECT_EQ(console.err, c.printed);
        EXPECT_EQ(console.out, "");
    }
}

TEST(PrintError, WritesNothingAfterClearing) {
    zx_set_error_internal(100, "f", 1, "m");
    zx_clear_error();
    const Console console = console_of([] { zx_print_error(); });
    EXPECT_EQ(console.out + console.err, "");
}

TEST(PrintError, KeepsTheRecord) {
    zx::test::plant_record();
    (void)console_of([] { zx_print_error(); });
    zx::test::expect_untouched();
}

TEST(PrintError, DoesNotLookAtTheVerbosity) {
    zx_set_error_internal(3, nullptr, 0, nullptr);
    for (const int level : {-1, 0, 1, 2}) {
        zx_set_verbosity(level);
        EXPECT_EQ(console_of([] { zx_print_error(); }).err,
                  "[ZORVEX ERROR] Null pointer (code 3)\n")
            << level;
    }
}

TEST(Recording, PrintsNothing) {
    const Console console = console_of([] { zx_set_error_internal(3, "f", 1, "m"); });
    EXPECT_EQ(console.out + console.err, "");
}

}  // namespace
