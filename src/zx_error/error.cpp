// Status texts, the per-thread error record, and the verbosity level, which lives in the engine
// record. Recording never prints; only zx_print_error() does.

#include "zorvex.h"
#include "zx_engine/engine_state.hpp"
#include "zx_error/record.hpp"

#include <cstdio>
#include <cstring>

namespace {

thread_local zx_error_context_t tls_error_context{};

}  // namespace

const char* zx_status_string(zx_status_t status) {
    switch (status) {
        case ZX_OK:
            return "Success";
        case ZX_ERR_UNKNOWN:
            return "Unknown error";
        case ZX_ERR_INVALID_ARGUMENT:
            return "Invalid argument";
        case ZX_ERR_NULL_POINTER:
            return "Null pointer";
        case ZX_ERR_INDEX_OUT_OF_BOUNDS:
            return "Index out of bounds";
        case ZX_ERR_OVERFLOW:
            return "Arithmetic overflow";
        case ZX_ERR_OUT_OF_MEMORY:
            return "Out of memory";
        case ZX_ERR_ALLOCATION_FAILED:
            return "Memory allocation failed";
        case ZX_ERR_BUFFER_TOO_SMALL:
            return "Buffer too small";
        case ZX_ERR_ALIGNMENT:
            return "Memory alignment failed";
        case ZX_ERR_ENGINE_NOT_INITIALIZED:
            return "Engine not initialized";
        case ZX_ERR_ENGINE_ALREADY_INITIALIZED:
            return "Engine already initialized";
        case ZX_ERR_NO_PLATFORM:
            return "No OpenCL platform found";
        case ZX_ERR_NO_DEVICE:
            return "No OpenCL device found";
        case ZX_ERR_CONTEXT_CREATE:
            return "Failed to create OpenCL context";
        case ZX_ERR_QUEUE_CREATE:
            return "Failed to create command queue";
        case ZX_ERR_KERNEL_COMPILE:
            return "Kernel compilation failed";
        case ZX_ERR_KERNEL_EXEC:
            return "Kernel execution failed";
        case ZX_ERR_BUFFER_CREATE:
            return "Failed to create GPU buffer";
        case ZX_ERR_TRANSFER:
            return "Failed to transfer data to/from GPU";
        case ZX_ERR_INVALID_MODEL:
            return "Invalid model";
        case ZX_ERR_MODEL_NOT_CONFIGURED:
            return "Model not configured";
        case ZX_ERR_MODEL_TYPE_MISMATCH:
            return "Model type mismatch";
        case ZX_ERR_INVALID_LAYER:
            return "Invalid layer";
        case ZX_ERR_DIMENSION_MISMATCH:
            return "Dimension mismatch";
        case ZX_ERR_TRAINING_FAILED:
            return "Training failed";
        case ZX_ERR_INVALID_MATRIX:
            return "Invalid matrix";
        case ZX_ERR_INVALID_SPARSE:
            return "Invalid sparse matrix format";
        case ZX_ERR_DATA_CORRUPTED:
            return "Data corrupted";
        case ZX_ERR_FILE_OPEN:
            return "Failed to open file";
        case ZX_ERR_FILE_READ:
            return "Failed to read file";
        case ZX_ERR_FILE_WRITE:
            return "Failed to write file";
        case ZX_ERR_VERSION_MISMATCH:
            return "Version mismatch";
        case ZX_ERR_INVALID_FORMAT:
            return "Invalid file format";
        // Not the text of ZX_ERR_UNKNOWN: a value that is no code at all.
        default:
            return "Unknown error code";
    }
}

const zx_error_context_t* zx_get_error_context(void) {
    return &tls_error_context;
}

void zx_set_error_internal(zx_status_t status, const char* file, int line, const char* message) {
    zx_error_context_t& record = tls_error_context;
    record.code = status;
    record.file = file;
    record.line = line;
    if (!message) {
        record.message[0] = '\0';
        return;
    }
    constexpr std::size_t kLimit = sizeof(record.message) - 1;
    const std::size_t length = strnlen(message, kLimit);
    std::memcpy(record.message, message, length);
    std::memset(record.message + length, 0, sizeof(record.message) - length);
}

zx_status_t zx_get_last_error(void) {
    return tls_error_context.code;
}

void zx_clear_error(void) {
    tls_error_context.code = ZX_OK;
    tls_error_context.file = nullptr;
    tls_error_context.line = 0;
    tls_error_context.message[0] = '\0';
}

void zx_print_error(void) {
    const zx_error_context_t& record = tls_error_context;
    if (record.code == ZX_OK) return;
    (void)std::fprintf(stderr, "[ZORVEX ERROR] %s (code %d)\n", zx_status_string(record.code),
                       record.code);
    if (record.file) (void)std::fprintf(stderr, "  at %s:%d\n", record.file, record.line);
    if (record.message[0] != '\0') (void)std::fprintf(stderr, "  %s\n", record.message);
}

void zx_set_verbosity(int level) {
    zx::g_engine.verbosity = level;
}

int zx_get_verbosity(void) {
    return zx::g_engine.verbosity < 0 ? 2 : zx::g_engine.verbosity;
}
