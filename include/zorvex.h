/*
 * zorvex.h: the whole public interface of Zorvex, a recommender engine as a native library.
 *
 * A host trains a matrix-factorisation model from implicit user-item feedback, scores pairs, asks
 * for a user's top K, measures hit rate and stores the model. Valid C11 and C++17; every function
 * has C linkage and none throws.
 *
 * Conventions, stated once:
 *  - Users and items are numbered from 0 with 32-bit ids. Numbers are 32-bit floats, matrices are
 *    row-major.
 *  - A function that can fail returns a zx_status_t or, if it makes an object, a pointer or null.
 *    "Recorded" means that the failure also fills the calling thread's error record, see
 *    zx_get_error_context(); "not recorded" means that the record keeps what it held. A success
 *    never clears the record.
 *  - Objects are made with one reference, which the caller owns. retain adds a reference, release
 *    drops one and destroys the object with the last one. Release functions ignore null.
 *  - Threads: the library starts none and takes no locks. The error record and the random generator
 *    belong to the calling thread; reference counts change atomically; everything else may be read
 *    by many threads and written by one at a time, as each function says. The engine functions and
 *    all work on a device belong to one thread at a time.
 *  - Loading the library sets the processor's flush-to-zero and denormals-are-zero modes in the
 *    loading thread, which the threads it starts inherit.
 */
#ifndef ZORVEX_H
#define ZORVEX_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 200
#endif
#include <CL/cl.h>

#define ZX_VERSION_MAJOR 0
#define ZX_VERSION_MINOR 1
#define ZX_VERSION_PATCH 0

#if defined(__GNUC__)
#define ZX_API __attribute__((visibility("default")))
#else
#define ZX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------- */
/* Status codes, the error record, verbosity                                                      */
/* ---------------------------------------------------------------------------------------------- */

/** A result: ZX_OK, or one of the codes below, grouped by hundreds; behind each its text. */
typedef int32_t zx_status_t;

enum {
    ZX_OK = 0, /**< "Success" */

    ZX_ERR_UNKNOWN = 1,             /**< "Unknown error" */
    ZX_ERR_INVALID_ARGUMENT = 2,    /**< "Invalid argument" */
    ZX_ERR_NULL_POINTER = 3,        /**< "Null pointer" */
    ZX_ERR_INDEX_OUT_OF_BOUNDS = 4, /**< "Index out of bounds" */
    ZX_ERR_OVERFLOW = 5,            /**< "Arithmetic overflow" */

    ZX_ERR_OUT_OF_MEMORY = 100,     /**< "Out of memory" */
    ZX_ERR_ALLOCATION_FAILED = 101, /**< "Memory allocation failed" */
    ZX_ERR_BUFFER_TOO_SMALL = 102,  /**< "Buffer too small" */
    ZX_ERR_ALIGNMENT = 103,         /**< "Memory alignment failed" */

    ZX_ERR_ENGINE_NOT_INITIALIZED = 200,     /**< "Engine not initialized" */
    ZX_ERR_ENGINE_ALREADY_INITIALIZED = 201, /**< "Engine already initialized" */
    ZX_ERR_NO_PLATFORM = 202,                /**< "No OpenCL platform found" */
    ZX_ERR_NO_DEVICE = 203,                  /**< "No OpenCL device found" */
    ZX_ERR_CONTEXT_CREATE = 204,             /**< "Failed to create OpenCL context" */
    ZX_ERR_QUEUE_CREATE = 205,               /**< "Failed to create command queue" */
    ZX_ERR_KERNEL_COMPILE = 206,             /**< "Kernel compilation failed" */
    ZX_ERR_KERNEL_EXEC = 207,                /**< "Kernel execution failed" */
    ZX_ERR_BUFFER_CREATE = 208,              /**< "Failed to create GPU buffer" */
    ZX_ERR_TRANSFER = 209,                   /**< "Failed to transfer data to/from GPU" */

    ZX_ERR_INVALID_MODEL = 300,        /**< "Invalid model" */
    ZX_ERR_MODEL_NOT_CONFIGURED = 301, /**< "Model not configured" */
    ZX_ERR_MODEL_TYPE_MISMATCH = 302,  /**< "Model type mismatch" */
    ZX_ERR_INVALID_LAYER = 303,        /**< "Invalid layer" */
    ZX_ERR_DIMENSION_MISMATCH = 304,   /**< "Dimension mismatch" */
    ZX_ERR_TRAINING_FAILED = 305,      /**< "Training failed" */

    ZX_ERR_INVALID_MATRIX = 400, /**< "Invalid matrix" */
    ZX_ERR_INVALID_SPARSE = 401, /**< "Invalid sparse matrix format" */
    ZX_ERR_DATA_CORRUPTED = 402, /**< "Data corrupted" */

    ZX_ERR_FILE_OPEN = 500,        /**< "Failed to open file" */
    ZX_ERR_FILE_READ = 501,        /**< "Failed to read file" */
    ZX_ERR_FILE_WRITE = 502,       /**< "Failed to write file" */
    ZX_ERR_VERSION_MISMATCH = 503, /**< "Version mismatch" */
    ZX_ERR_INVALID_FORMAT = 504    /**< "Invalid file format" */
};

/** What the last recorded failure of a thread was. Each thread has one, all zero at its start. */
typedef struct zx_error_context_t {
    zx_status_t code;  /**< the recorded status; 0 means that there is no error */
    const char* file;  /**< the module that recorded it, such as "src/zx_memory"; static, or null */
    int32_t line;      /**< the source line that recorded it, for information only */
    char message[256]; /**< detail, NUL-terminated; empty when there is none */
} zx_error_context_t;

/**
 * Names a status code.
 *
 * @param status  any value.
 * @return the code's static text, such as "Out of memory"; "Unknown error code" for a value that is
 *         no code. Never null.
 *
 * Threads: any.
 */
ZX_API const char* zx_status_string(zx_status_t status);

/**
 * Returns the calling thread's error record, for reading; it stays valid for the thread's life and
 * shows later failures too. Never null.
 */
ZX_API const zx_error_context_t* zx_get_error_context(void);

/** Returns the code in the calling thread's error record; 0 when nothing is recorded. */
ZX_API zx_status_t zx_get_last_error(void);

/** Clears the calling thread's error record: code 0, no file, line 0, an empty message. */
ZX_API void zx_clear_error(void);

/**
 * Writes the calling thread's error record to standard error: the code and its text, then the
 * recording module and line if there is one, then the message if there is one. Writes nothing when
 * no error is recorded. The record is kept, and the verbosity does not matter.
 */
ZX_API void zx_print_error(void);

/**
 * Sets how much the library prints about itself.
 *
 * @param level  0: nothing. 1: warnings. 2 and above: information lines too (prefix "[ZORVEX]", on
 *               standard output). A negative level behaves like 2. The level starts at -1, and
 *               zx_engine_shutdown() sets it back to -1.
 *
 * Threads: process-wide and unsynchronised; set it before starting threads.
 */
ZX_API void zx_set_verbosity(int level);

/** Returns the verbosity level; 2 when the stored level is negative. */
ZX_API int zx_get_verbosity(void);

/* ---------------------------------------------------------------------------------------------- */
/* Engine: start-up, shut-down, the device                                                        */
/* ---------------------------------------------------------------------------------------------- */

/** Starts the engine and prefers a GPU: zx_engine_init_with_device(CL_DEVICE_TYPE_GPU). */
ZX_API zx_status_t zx_engine_init(void);

/**
 * Starts the engine: seeds the calling thread's random generator from the clock, takes the first
 * OpenCL platform's first device of the given type (else its first device of any type), makes a
 * context and an in-order queue for it, and loads the kernels with zx_gpu_init().
 *
 * Nothing on the way is an error: without a usable OpenCL device the engine runs in CPU-only mode,
 * and without kernels it keeps the device but computes on the host, after a warning. It says which
 * on standard output. The record then holds what zx_gpu_init() recorded, if it failed.
 *
 * @param device_type  bit mask of OpenCL device types to prefer.
 * @return ZX_OK;
 *         ZX_ERR_ENGINE_ALREADY_INITIALIZED if the engine runs already (recorded, "Engine already
 *         initialized"); nothing changes.
 *
 * Threads: one thread, before and after any other use of the engine or the device.
 */
ZX_API zx_status_t zx_engine_init_with_device(cl_device_type device_type);

/**
 * Stops the engine: releases the kernels, the program, the queue and the context if the engine is
 * in GPU mode, says so, and resets the engine, the verbosity included (to -1, deliberately). Does
 * nothing if the engine does not run. An engine that lost its GPU mode because the kernels were
 * missing keeps its context and queue unreleased, deliberately.
 *
 * Tensors, matrices and models are not touched; release those with device copies first. Kernels
 * that were loaded by zx_gpu_init_from_file() into an engine that started without any are not
 * released either: call zx_gpu_shutdown() first, or the next start-up takes them for its own.
 *
 * Threads: as zx_engine_init_with_device().
 */
ZX_API void zx_engine_shutdown(void);

/** Returns whether the engine runs, in whichever mode. */
ZX_API bool zx_engine_is_initialized(void);

/** Returns the OpenCL platform's name; "CPU" in CPU-only mode, empty before start-up. Never null.
 */
ZX_API const char* zx_engine_platform_name(void);

/**
 * Returns the OpenCL device's name; "CPU (BLAS/SIMD)" in CPU-only mode, empty before start-up.
 * Never null.
 */
ZX_API const char* zx_engine_device_name(void);

/** Returns the device's global memory in bytes; 0 without a device. */
ZX_API uint64_t zx_engine_global_memory(void);

/**
 * Returns whether the engine is in GPU mode on a device that is a GPU; false on an OpenCL device of
 * another type, even in GPU mode.
 */
ZX_API bool zx_engine_is_gpu(void);

/* ---------------------------------------------------------------------------------------------- */
/* Engine: programs, device buffers, kernel dispatch                                              */
/* ---------------------------------------------------------------------------------------------- */

/** A device buffer: an OpenCL memory object; null means none. */
typedef cl_mem zx_buffer_t;

/**
 * Builds the engine's one program from OpenCL C source text, in place of the program before it. The
 * kernels that zx_gpu_init() loaded stay those of the program they were made from.
 *
 * @param source   the source text; null is reported as source that makes no program.
 * @param options  build options, or null.
 * @return ZX_OK;
 *         ZX_ERR_ENGINE_NOT_INITIALIZED (recorded without message);
 *         ZX_ERR_KERNEL_COMPILE (recorded): "Failed to create program from source", also in
 *         CPU-only mode, or "Kernel compilation failed" after the build log went to standard error,
 *         whatever the verbosity. The engine then has no program.
 *
 * Threads: none may use the engine's program or queue meanwhile.
 */
ZX_API zx_status_t zx_engine_compile_kernels(const char* source, const char* options);

/**
 * Builds the engine's program from a file of OpenCL C source of 1 to 10,485,760 bytes.
 *
 * @param path     path of the file; read in full before the build.
 * @param options  build options, or null.
 * @return ZX_OK; else, recorded, ZX_ERR_NULL_POINTER "Kernel file path is NULL";
 *         ZX_ERR_INVALID_ARGUMENT "Could not open kernel file" or "Could not seek kernel file";
 *         ZX_ERR_BUFFER_TOO_SMALL "Kernel file size invalid or too large";
 *         ZX_ERR_OUT_OF_MEMORY without message;
 *         ZX_ERR_DATA_CORRUPTED "Kernel file contains null bytes" (one as the last byte is let
 *         pass); or what zx_engine_compile_kernels() returns.
 *
 * Threads: as zx_engine_compile_kernels().
 */
ZX_API zx_status_t zx_engine_compile_kernels_file(const char* path, const char* options);

/**
 * Makes a kernel object of the engine's program. The caller owns it and releases it with
 * clReleaseKernel().
 *
 * @param name  name of a kernel function in the program.
 * @return a new kernel; null, nothing recorded, if no program was built or it has no such kernel.
 */
ZX_API cl_kernel zx_kernel_get(const char* name);

/**
 * Makes a device buffer with undefined contents. The caller owns it.
 *
 * @param size   bytes.
 * @param flags  OpenCL memory flags (cl_mem_flags), passed on unchanged.
 * @return the buffer; null, nothing recorded, if the engine does not run or OpenCL refuses.
 */
ZX_API zx_buffer_t zx_buffer_create(uint64_t size, uint64_t flags);

/**
 * Makes a device buffer that holds a copy of host memory, which is not referenced afterwards.
 *
 * @param host   at least size bytes.
 * @param size   bytes.
 * @param flags  OpenCL memory flags; CL_MEM_COPY_HOST_PTR is added.
 * @return the buffer; null, nothing recorded, if the engine does not run, host is null or OpenCL
 *         refuses.
 */
ZX_API zx_buffer_t zx_buffer_create_with_data(const void* host, uint64_t size, uint64_t flags);

/**
 * Copies host memory to the start of a device buffer and waits for it.
 *
 * @return ZX_OK; ZX_ERR_NULL_POINTER if buffer or host is null (not recorded); ZX_ERR_TRANSFER
 *         (recorded, "Failed to write to GPU buffer") if OpenCL refuses, also in CPU-only mode.
 */
ZX_API zx_status_t zx_buffer_write(zx_buffer_t buffer, const void* host, uint64_t size);

/**
 * Copies a device buffer's first bytes to host memory and waits for it.
 *
 * @return as zx_buffer_write(), with "Failed to read from GPU buffer".
 */
ZX_API zx_status_t zx_buffer_read(zx_buffer_t buffer, void* host, uint64_t size);

/**
 * As zx_buffer_write(), without waiting: the host memory must stay until the event has completed.
 *
 * @param buffer, host, size  as for zx_buffer_write().
 * @param event               receives the transfer's event, which the caller releases; may be null.
 */
ZX_API zx_status_t zx_buffer_write_async(zx_buffer_t buffer, const void* host, uint64_t size,
                                         cl_event* event);

/**
 * As zx_buffer_read(), without waiting: the host memory is filled once the event has completed or
 * zx_engine_sync() has returned.
 *
 * @param buffer, host, size  as for zx_buffer_read().
 * @param event               receives the transfer's event, which the caller releases; may be null.
 */
ZX_API zx_status_t zx_buffer_read_async(zx_buffer_t buffer, void* host, uint64_t size,
                                        cl_event* event);

/** Releases a device buffer; null is ignored. */
ZX_API void zx_buffer_release(zx_buffer_t buffer);

/**
 * Sets one argument of a kernel.
 *
 * @param kernel  from zx_kernel_get().
 * @param index   the argument's position.
 * @param size    bytes of the value.
 * @param value   the value; copied.
 * @return ZX_OK; ZX_ERR_KERNEL_EXEC (recorded, "Failed to set kernel argument").
 */
ZX_API zx_status_t zx_kernel_set_arg(cl_kernel kernel, uint32_t index, uint64_t size,
                                     const void* value);

/**
 * Enqueues a kernel over a one-dimensional range, without waiting.
 *
 * @param kernel  from zx_kernel_get().
 * @param global  work-items; not rounded up to a multiple of local.
 * @param local   work-group size; 0 lets the OpenCL implementation choose.
 * @return ZX_OK; ZX_ERR_KERNEL_EXEC (recorded, "Failed to execute kernel").
 */
ZX_API zx_status_t zx_kernel_exec_1d(cl_kernel kernel, uint64_t global, uint64_t local);

/**
 * Enqueues a kernel over a two-dimensional range, without waiting.
 *
 * @param kernel              from zx_kernel_get().
 * @param global_0, global_1  work-items in each dimension.
 * @param local_0, local_1    work-group size; passed on only when both are non-zero.
 * @return as zx_kernel_exec_1d().
 */
ZX_API zx_status_t zx_kernel_exec_2d(cl_kernel kernel, uint64_t global_0, uint64_t global_1,
                                     uint64_t local_0, uint64_t local_1);

/**
 * Waits until everything enqueued on the engine's queue has completed.
 *
 * @return ZX_OK; ZX_ERR_ENGINE_NOT_INITIALIZED (not recorded); ZX_ERR_KERNEL_EXEC (recorded,
 *         "Failed to synchronize"), also in CPU-only mode.
 */
ZX_API zx_status_t zx_engine_sync(void);

/* ---------------------------------------------------------------------------------------------- */
/* Random numbers                                                                                 */
/* ---------------------------------------------------------------------------------------------- */

/**
 * Seeds the calling thread's generator. Without it every thread starts from the same fixed state;
 * zx_engine_init() seeds its own thread from the clock.
 *
 * @param seed  any value, 0 included; the same seed gives the same stream on every machine.
 *
 * Threads: each has its own generator.
 * Method: Blackman, Vigna, "Scrambled Linear Pseudorandom Number Generators", ACM TOMS 2021:
 * xoshiro256**, seeded by SplitMix64.
 */
ZX_API void zx_rng_seed(uint64_t seed);

/**
 * Draws a uniform number from [0, 1]: the generator's upper 53 bits, rounded to a float, so that
 * exactly 1 comes with probability 2^-25.
 */
ZX_API float zx_rng_uniform(void);

/** Draws (max - min) * u + min for a uniform u, see zx_rng_uniform(); min above max is allowed. */
ZX_API float zx_rng_uniform_range(float min, float max);

/**
 * Draws from the standard normal distribution. Takes two uniform draws, and more only when the
 * first is 0.
 *
 * Method: Box, Muller, "A Note on the Generation of Random Normal Deviates", 1958, cosine branch.
 */
ZX_API float zx_rng_normal(void);

/* ---------------------------------------------------------------------------------------------- */
/* Aligned memory                                                                                 */
/* ---------------------------------------------------------------------------------------------- */

/**
 * Allocates memory on a 128-byte boundary, with undefined contents.
 *
 * @return the block, to be freed with zx_free_aligned(); null if size is 0 or memory is short.
 *         Nothing is recorded, here and by the three functions that follow.
 */
ZX_API void* zx_malloc_aligned(uint64_t size);

/**
 * Allocates count elements of size bytes each on a 128-byte boundary, zero-filled.
 *
 * @return the block; null if count or size is 0, if count exceeds (2^63 - 1) / size, or if memory
 *         is short.
 */
ZX_API void* zx_calloc_aligned(uint64_t count, uint64_t size);

/**
 * Moves a block to a new size; bytes that are new are undefined.
 *
 * @param old       block of this allocator, or null.
 * @param old_size  its size in bytes.
 * @param new_size  the size wanted; 0 frees the block and returns null.
 * @return the new block, the old one being freed; null if memory is short, the old one being kept.
 */
ZX_API void* zx_realloc_aligned(void* old, uint64_t old_size, uint64_t new_size);

/** Frees a block of this allocator; null is ignored. */
ZX_API void zx_free_aligned(void* block);

/* ---------------------------------------------------------------------------------------------- */
/* Dense tensors                                                                                  */
/* ---------------------------------------------------------------------------------------------- */

/**
 * A row-major array of floats with one to four axes, and optionally a copy of it on the device.
 * Made by zx_tensor_create() and zx_tensor_wrap() only; size is the product of the extents, except
 * 0 for wrapped extents whose product overflows.
 */
typedef struct zx_tensor_t {
    uint32_t refcount;         /**< references; changed atomically */
    uint32_t dims[4];          /**< extents, slowest axis first; beyond ndim 1, or 0 if wrapped */
    uint8_t ndim;              /**< number of axes, 1 to 4 */
    uint64_t size;             /**< number of elements */
    uint64_t capacity;         /**< number of elements allocated */
    float* data;               /**< host elements; owned if owns_data, else the caller's */
    zx_buffer_t device_buffer; /**< device copy, owned; null when there is none */
    uint8_t on_device;         /**< 1 when the device copy is the current one */
    uint8_t owns_data;         /**< 1 when the last release frees data */
} zx_tensor_t;

/**
 * Makes a zero-filled tensor.
 *
 * @param ndim  number of axes, 1 to 4.
 * @param dims  [ndim] extents, slowest first; copied.
 * @return the tensor, owned by the caller; else null, recorded: ZX_ERR_INVALID_ARGUMENT "Invalid
 *         tensor dimensions" (ndim out of range or dims null); ZX_ERR_OVERFLOW "Tensor size
 *         overflow" (an extent is 0, deliberately, or the product exceeds 2^63 - 1);
 *         ZX_ERR_OUT_OF_MEMORY "Failed to allocate tensor" or "Failed to allocate tensor data".
 *
 * Threads: any.
 */
ZX_API zx_tensor_t* zx_tensor_create(int ndim, const uint32_t* dims);

/** Makes a zero-filled tensor of one axis; fails as zx_tensor_create(). */
ZX_API zx_tensor_t* zx_tensor_create_1d(uint32_t size);

/** Makes a zero-filled rows x cols tensor; fails as zx_tensor_create(). */
ZX_API zx_tensor_t* zx_tensor_create_2d(uint32_t rows, uint32_t cols);

/** The same as zx_tensor_create(), which zero-fills already. */
ZX_API zx_tensor_t* zx_tensor_zeros(int ndim, const uint32_t* dims);

/** The same as zx_tensor_create_2d(), which zero-fills already. */
ZX_API zx_tensor_t* zx_tensor_zeros_2d(uint32_t rows, uint32_t cols);

/**
 * Makes a tensor over the caller's memory, which is neither copied nor ever freed by the library
 * and must outlive the tensor.
 *
 * @param data  the elements, row-major.
 * @param ndim  number of axes, 1 to 4.
 * @param dims  [ndim] extents; copied. The unused extents stay 0. An extent of 0 gives size 0, and
 *              so does a product above 2^63 - 1.
 * @return the tensor, owned by the caller; null, nothing recorded, if ndim is out of range, data or
 *         dims is null, or memory is short.
 *
 * Threads: any.
 */
ZX_API zx_tensor_t* zx_tensor_wrap(float* data, uint32_t ndim, const uint32_t* dims);

/** Adds a reference and returns the tensor; null stays null. Threads: any. */
ZX_API zx_tensor_t* zx_tensor_retain(zx_tensor_t* tensor);

/**
 * Drops a reference; the last one frees the device copy, the data if owned, and the record. Null is
 * ignored. Threads: any.
 */
ZX_API void zx_tensor_release(zx_tensor_t* tensor);

/**
 * Reads an element of the first two axes.
 *
 * @return the element at row * dims[1] + col, an index that wraps at 2^32, deliberately; 0 if
 *         tensor or its data is null, if it has one axis only, or if row or col is out of range.
 */
ZX_API float zx_tensor_get_2d(const zx_tensor_t* tensor, uint32_t row, uint32_t col);

/**
 * Writes an element of the first two axes of the host data and makes the host copy current.
 *
 * @return ZX_OK; ZX_ERR_NULL_POINTER if tensor or its data is null or it has one axis only;
 *         ZX_ERR_INDEX_OUT_OF_BOUNDS if row or col is out of range. Nothing is recorded.
 */
ZX_API zx_status_t zx_tensor_set_2d(zx_tensor_t* tensor, uint32_t row, uint32_t col, float value);

/**
 * Returns where a row of the host data begins; null if tensor or its data is null, it has one axis
 * only, or row is out of range. Writing through it does not change which copy counts as current.
 */
ZX_API float* zx_tensor_row_ptr(const zx_tensor_t* tensor, uint32_t row);

/** Returns the host data; null for null. */
ZX_API float* zx_tensor_data(const zx_tensor_t* tensor);

/** Returns the number of elements; 0 for null. */
ZX_API uint64_t zx_tensor_size(const zx_tensor_t* tensor);

/** Returns the number of axes; 0 for null. */
ZX_API uint8_t zx_tensor_ndim(const zx_tensor_t* tensor);

/** Returns an axis's extent; 0 for null or an axis the tensor does not have. */
ZX_API uint32_t zx_tensor_dim(const zx_tensor_t* tensor, uint32_t axis);

/**
 * Copies a tensor's host data into a new tensor that owns its data and has no device copy.
 *
 * @return the tensor, owned by the caller; null for null (not recorded) or when zx_tensor_create()
 *         fails (recorded by it).
 */
ZX_API zx_tensor_t* zx_tensor_clone(const zx_tensor_t* tensor);

/**
 * Copies the host data to the device and makes the device copy current.
 *
 * @return ZX_OK; ZX_ERR_NULL_POINTER for null, ZX_ERR_ENGINE_NOT_INITIALIZED, ZX_ERR_BUFFER_CREATE
 *         if the device copy cannot be made, as in CPU-only mode or for a wrapped tensor of more
 *         bytes than 64 bits count (none of these recorded);
 *         ZX_ERR_TRANSFER (recorded, see zx_buffer_write()).
 *
 * Threads: device work, one thread at a time; the tensor must not be used meanwhile.
 */
ZX_API zx_status_t zx_tensor_to_device(zx_tensor_t* tensor);

/**
 * Copies the device copy back into the host data and makes the host copy current.
 *
 * @return ZX_OK; ZX_ERR_NULL_POINTER for null or without a device copy, ZX_ERR_BUFFER_CREATE for a
 *         size as above (neither recorded); ZX_ERR_TRANSFER (recorded, see zx_buffer_read()).
 *
 * Threads: as zx_tensor_to_device().
 */
ZX_API zx_status_t zx_tensor_to_host(zx_tensor_t* tensor);

/**
 * Brings the stale copy up to date: reads back if the device copy is current, else uploads if there
 * is a device copy, else does nothing.
 *
 * @return ZX_OK; ZX_ERR_NULL_POINTER for null; else what the copy returns.
 */
ZX_API zx_status_t zx_tensor_sync(zx_tensor_t* tensor);

/**
 * Fills all of a tensor's elements, in order, with zx_rng_uniform_range(min, max). Does nothing for
 * null, null data or no elements. Which copy counts as current does not change, here and in the
 * two functions that follow.
 */
ZX_API void zx_rng_fill_uniform(zx_tensor_t* tensor, float min, float max);

/**
 * Fills a tensor with uniform numbers from [-b, b], b = sqrt(6 / (fan_in + fan_out)), the sum being
 * taken in 32 bits. fan_in + fan_out = 0 gives values that are not finite.
 *
 * Method: Glorot, Bengio, "Understanding the difficulty of training deep feedforward neural
 * networks", AISTATS 2010.
 */
ZX_API void zx_rng_fill_xavier(zx_tensor_t* tensor, uint32_t fan_in, uint32_t fan_out);

/**
 * Fills a tensor with normal numbers of standard deviation sqrt(2 / fan_in). fan_in = 0 gives
 * values that are not finite.
 *
 * Method: He, Zhang, Ren, Sun, "Delving Deep into Rectifiers", ICCV 2015.
 */
ZX_API void zx_rng_fill_he(zx_tensor_t* tensor, uint32_t fan_in);

/** Makes a rows x cols tensor of uniform numbers; fails as zx_tensor_create(). */
ZX_API zx_tensor_t* zx_tensor_rand_uniform(uint32_t rows, uint32_t cols, float min, float max);

/* ---------------------------------------------------------------------------------------------- */
/* Sparse matrices                                                                                */
/* ---------------------------------------------------------------------------------------------- */

/**
 * A matrix in compressed sparse row (CSR) form, and optionally a copy of it on the device. Made by
 * zx_sparse_create() zero-filled; the caller fills the three arrays, and zx_sparse_validate() says
 * whether they are a matrix. The other functions expect a valid one and stay within the arrays
 * even for one that is not.
 */
typedef struct zx_sparse_t {
    uint32_t refcount;          /**< references; changed atomically */
    uint32_t rows;              /**< number of rows */
    uint32_t cols;              /**< number of columns */
    uint32_t nnz;               /**< number of stored entries */
    uint32_t capacity;          /**< number of entries allocated */
    float* values;              /**< [nnz] values; owned */
    uint32_t* col_idx;          /**< [nnz] columns, strictly increasing within a row; owned */
    uint32_t* row_ptr;          /**< [rows + 1] where each row's entries begin; owned */
    zx_buffer_t device_values;  /**< device copy of values, owned; null until uploaded */
    zx_buffer_t device_col_idx; /**< device copy of col_idx */
    zx_buffer_t device_row_ptr; /**< device copy of row_ptr */
    uint8_t on_device;          /**< 1 after an upload; host edits do not clear it */
} zx_sparse_t;

/**
 * Makes a matrix with zero-filled arrays for the caller to fill.
 *
 * @param rows, cols  shape; not 0.
 * @param nnz         number of entries; not 0, deliberately: a matrix without entries cannot be
 *                    made.
 * @return the matrix, owned by the caller; else null, recorded: ZX_ERR_INVALID_ARGUMENT "Invalid
 *         sparse matrix dimensions" (rows or cols 0); ZX_ERR_OUT_OF_MEMORY "Failed to allocate
 *         sparse matrix" or "Failed to allocate sparse matrix arrays" (also for nnz 0).
 *
 * Threads: any.
 */
ZX_API zx_sparse_t* zx_sparse_create(uint32_t rows, uint32_t cols, uint32_t nnz);

/** Adds a reference and returns the matrix; null stays null. Threads: any. */
ZX_API zx_sparse_t* zx_sparse_retain(zx_sparse_t* matrix);

/**
 * Drops a reference; the last one frees the device copies, the arrays and the record. Null is
 * ignored. Threads: any.
 */
ZX_API void zx_sparse_release(zx_sparse_t* matrix);

/**
 * Expands a matrix to a dense rows x cols tensor. Entries whose column is out of range are left
 * out; of repeated columns the later counts.
 *
 * @return the tensor, owned by the caller; null for null (not recorded) or when
 *         zx_tensor_zeros_2d() fails (recorded by it).
 */
ZX_API zx_tensor_t* zx_sparse_to_dense(const zx_sparse_t* matrix);

/**
 * Looks an entry up by binary search of its row.
 *
 * @return its value; 0 if it is not stored, if matrix is null, or if row or col is out of range.
 */
ZX_API float zx_sparse_get(const zx_sparse_t* matrix, uint32_t row, uint32_t col);

/** Returns the array of row starts, [rows + 1]; null for null. */
ZX_API uint32_t* zx_sparse_row_ptr(const zx_sparse_t* matrix);

/** Returns the array of columns, [nnz]; null for null. */
ZX_API uint32_t* zx_sparse_col_idx(const zx_sparse_t* matrix);

/** Returns the array of values, [nnz]; null for null. */
ZX_API float* zx_sparse_values(const zx_sparse_t* matrix);

/**
 * Returns a row's number of entries, those within the arrays only; 0 for null or a row out of
 * range.
 */
ZX_API uint32_t zx_sparse_row_nnz(const zx_sparse_t* matrix, uint32_t row);

/**
 * Copies a row's entries.
 *
 * @param matrix     the matrix.
 * @param row        the row.
 * @param cols_out   receives the columns; room for zx_sparse_row_nnz() of them, or null.
 * @param vals_out   receives the values, likewise; if either is null, neither is written.
 * @param count_out  receives the number of entries, as zx_sparse_row_nnz() does; may be null.
 * @return ZX_OK; ZX_ERR_INDEX_OUT_OF_BOUNDS if matrix is null (deliberately this code) or row is
 *         out of range (not recorded).
 */
ZX_API zx_status_t zx_sparse_get_row(const zx_sparse_t* matrix, uint32_t row, uint32_t* cols_out,
                                     float* vals_out, uint32_t* count_out);

/**
 * Copies the three arrays to the device, read-only there. Call it again after editing them.
 *
 * @return ZX_OK; ZX_ERR_NULL_POINTER for null, and after a first upload that failed in part, from
 *         which only releasing the matrix recovers; ZX_ERR_ENGINE_NOT_INITIALIZED;
 *         ZX_ERR_BUFFER_CREATE if a device copy cannot be made, as in CPU-only mode (none of these
 * recorded); ZX_ERR_TRANSFER (recorded, see zx_buffer_write()).
 *
 * Threads: device work, one thread at a time.
 */
ZX_API zx_status_t zx_sparse_to_device(zx_sparse_t* matrix);

/**
 * Checks that the arrays form a CSR matrix: row starts never decrease and end at nnz, columns are
 * in range and strictly increase within a row. The first row may start after 0.
 *
 * @return ZX_OK; ZX_ERR_NULL_POINTER for null and ZX_ERR_INVALID_SPARSE if an array is null (not
 *         recorded); ZX_ERR_INVALID_SPARSE, recorded, for the first fault in this order: "row_ptr
 *         is not monotonic", "row_ptr[rows] != nnz", then entry by entry "Column index out of
 *         bounds", "Column indices not sorted".
 */
ZX_API zx_status_t zx_sparse_validate(const zx_sparse_t* matrix);

/* ---------------------------------------------------------------------------------------------- */
/* Memory pools                                                                                   */
/* ---------------------------------------------------------------------------------------------- */

/** The header of a pool's block; the payload follows it directly, in the same allocation. */
typedef struct zx_pool_block_t {
    struct zx_pool_block_t* next; /**< next block of the chain, owned; null in the last one */
    uint64_t capacity;            /**< payload bytes */
    uint64_t used;                /**< payload bytes handed out */
} zx_pool_block_t;

/**
 * Scratch memory that is carved from large blocks and given back all at once. Made by
 * zx_pool_create(); current_block is a block of the chain, or null while there is none.
 */
typedef struct zx_pool_t {
    zx_pool_block_t* first_block;   /**< first block of the chain, owned; null before first use */
    zx_pool_block_t* current_block; /**< the block that allocations are taken from */
    uint64_t block_size;            /**< payload bytes of a new block */
} zx_pool_t;

/**
 * Makes an empty pool.
 *
 * @param block_size  payload bytes of a block; 0 for 1,048,576.
 * @return the pool, to be destroyed with zx_pool_destroy(); null, nothing recorded, if memory is
 *         short.
 *
 * Threads: any; a pool belongs to one thread at a time, here and in the functions that follow.
 * Method: a bump allocator, Hanson, "Fast Allocation and Deallocation of Memory Based on Object
 * Lifetimes", Software: Practice and Experience 1990.
 */
ZX_API zx_pool_t* zx_pool_create(uint64_t block_size);

/**
 * Takes memory from a pool, with undefined contents. It stays until zx_pool_reset() or
 * zx_pool_destroy() and is not freed by itself. The size is rounded up to a multiple of 16; a
 * request that the current block has no room for starts a new block, of the request's own size if
 * that is larger than the pool's, and what the old block had left is not used any more.
 *
 * @param pool  the pool.
 * @param size  bytes.
 * @return the memory, on a boundary of 8 bytes and, deliberately, no more; null, nothing recorded,
 *         if pool is null, size is 0, memory is short, or the size overflows on the way.
 */
ZX_API void* zx_pool_alloc(zx_pool_t* pool, uint64_t size);

/**
 * Takes back everything a pool handed out and begins again in its first block; null is ignored.
 *
 * Only the first block is filled again: the first request after a reset that it has no room for
 * starts a new block, which takes the place of all blocks behind the first. Those then belong to
 * nobody and are never freed, deliberately. A pool that is reset wants a block size that holds all
 * that is taken between two resets.
 */
ZX_API void zx_pool_reset(zx_pool_t* pool);

/** Frees a pool and its chain of blocks; null is ignored. */
ZX_API void zx_pool_destroy(zx_pool_t* pool);

/* ---------------------------------------------------------------------------------------------- */
/* The matrix-factorisation model                                                                 */
/* ---------------------------------------------------------------------------------------------- */

/** Kind of a model. Functions refuse a value that is not listed. */
typedef uint32_t zx_model_type_t;

enum {
    ZX_MODEL_MF = 0 /**< matrix factorisation */
};

/** An item and its score. */
typedef struct zx_scored_item_t {
    float score;   /**< the item's score */
    uint32_t item; /**< the item's id */
} zx_scored_item_t;

/**
 * A matrix-factorisation (MF) model: a score is the dot product of a user's and an item's embedding
 * row, plus biases if the model has them. Made by zx_model_mf_create() and zx_model_load(). The
 * record is open: several records may share the four tensors, so that each thread has a light
 * record with scratch of its own. Such a record comes zero-filled from zx_calloc_aligned(), has
 * refcount 1, copies the other fields with every tensor retained and every scratch array null, and
 * is dropped with zx_model_release(). The scratch arrays grow on demand and die with the record.
 */
typedef struct zx_model_t {
    zx_model_type_t type;         /**< ZX_MODEL_MF */
    const char* name;             /**< static text; "MatrixFactorization" */
    int32_t refcount;             /**< references; changed atomically */
    uint32_t embedding_dim;       /**< length d of an embedding row */
    uint32_t num_users;           /**< number of users */
    uint32_t num_items;           /**< number of items */
    zx_tensor_t* user_embeddings; /**< [num_users x d]; owned */
    zx_tensor_t* item_embeddings; /**< [num_items x d]; owned */
    zx_tensor_t* user_biases;     /**< [num_users]; owned; null without biases */
    zx_tensor_t* item_biases;     /**< [num_items]; owned; null without biases */
    float global_bias;            /**< added to every score of a model with biases */
    uint8_t use_bias;             /**< 1 when the model has biases */
    float* score_buf;             /**< scratch of zx_recommend(); owned; null until used */
    uint64_t score_buf_cap;       /**< its capacity in floats */
    zx_scored_item_t* heap_buf;   /**< scratch of zx_recommend(); owned; null until used */
    uint64_t heap_buf_cap;        /**< its capacity in entries */
    float* gather_buf;            /**< scratch of zx_model_score_items(); owned; null until used */
    uint64_t gather_buf_cap;      /**< its capacity in floats */
    uint8_t training;             /**< mode flag for the host's use; 1 at first */
    zx_tensor_t* aux_tensor;      /**< a tensor the host may attach; owned; null at first */
} zx_model_t;

/**
 * Makes an MF model: embeddings drawn with zx_rng_fill_xavier(d, d), users first, biases zero.
 *
 * @param num_users, num_items  numbers of rows; not 0.
 * @param embedding_dim         length d of a row; not 0.
 * @param use_bias              whether the model has user, item and global biases.
 * @return the model, owned by the caller; null if memory for the record is short (not recorded) or
 *         a tensor cannot be made (recorded by zx_tensor_create(), such as "Tensor size overflow"
 *         for a 0).
 *
 * Threads: any; advances the calling thread's generator by (num_users + num_items) * d draws.
 * Method: Koren, Bell, Volinsky, "Matrix Factorization Techniques for Recommender Systems", IEEE
 * Computer 2009.
 */
ZX_API zx_model_t* zx_model_mf_create(uint32_t num_users, uint32_t num_items,
                                      uint32_t embedding_dim, bool use_bias);

/** Adds a reference and returns the model; null stays null. Threads: any. */
ZX_API zx_model_t* zx_model_retain(zx_model_t* model);

/**
 * Drops a reference; the last one releases the tensors and frees scratch and record. Null is
 * ignored. Threads: any.
 */
ZX_API void zx_model_release(zx_model_t* model);

/** Sets the mode flag to training; null is ignored. */
ZX_API void zx_model_train(zx_model_t* model);

/** Sets the mode flag to evaluation; null is ignored. */
ZX_API void zx_model_eval(zx_model_t* model);

/**
 * Copies the embedding rows of a list of users, from the host data.
 *
 * @param model  MF model.
 * @param ids    [count] user ids, in any order, repeated ones included; borrowed for the call.
 * @param count  number of ids.
 * @return a new [count x d] tensor, owned by the caller; null if ids or model is null or count is 0
 *         (not recorded); else null, recorded: ZX_ERR_MODEL_TYPE_MISMATCH "Unsupported model type";
 *         ZX_ERR_INDEX_OUT_OF_BOUNDS "User ID out of bounds"; or what zx_tensor_create() records.
 *
 * Threads: any number may read one model.
 */
ZX_API zx_tensor_t* zx_model_lookup_user_embeddings(const zx_model_t* model, const uint32_t* ids,
                                                    uint32_t count);

/** As zx_model_lookup_user_embeddings(), for items; "Item ID out of bounds". */
ZX_API zx_tensor_t* zx_model_lookup_item_embeddings(const zx_model_t* model, const uint32_t* ids,
                                                    uint32_t count);

/** The model's forward pass for users: the same as zx_model_lookup_user_embeddings(). */
ZX_API zx_tensor_t* zx_model_forward_user(const zx_model_t* model, const uint32_t* ids,
                                          uint32_t count);

/** The model's forward pass for items: the same as zx_model_lookup_item_embeddings(). */
ZX_API zx_tensor_t* zx_model_forward_item(const zx_model_t* model, const uint32_t* ids,
                                          uint32_t count);

/**
 * Counts the trainable numbers: the elements of the embedding and bias tensors. The global bias is
 * not counted, deliberately. 0 for null or a model that is not MF.
 */
ZX_API uint64_t zx_model_num_parameters(const zx_model_t* model);

/**
 * Copies the two embedding tables to the device; the biases stay on the host.
 *
 * @return ZX_OK, also for a model that is not MF, which is left alone; ZX_ERR_NULL_POINTER for null
 *         (not recorded); else the first failure of zx_tensor_to_device().
 *
 * Threads: as zx_tensor_to_device().
 */
ZX_API zx_status_t zx_model_to_device(zx_model_t* model);

/**
 * Scores a batch of (user, item) pairs.
 *
 * 512 pairs or more are scored on the device when zx_gpu_is_ready(), by zx_gpu_batched_score():
 * from the device copies of tables whose on_device flag is set, current or not, after uploading the
 * others. Fewer pairs, and all that the device refuses, are scored on the host, from the host data,
 * whatever the flags say. See zx_model_train_step_bpr() for a host that mixes the sides.
 *
 * A score is dot(user row, item row), for a model with biases (user bias + item bias) + (dot +
 * global bias). The dot product adds four interleaved partial sums, ((s0 + s2) + (s1 + s3)), then
 * the last d mod 4 products, without fused multiply-add: the same bits on every processor.
 *
 * @param model  MF model.
 * @param users  [count] user ids; borrowed for the call, as is the next array.
 * @param items  [count] item ids.
 * @param count  number of pairs.
 * @return a new [count] tensor of scores, owned by the caller; null if an argument is null or count
 *         is 0 (not recorded); else null, recorded: ZX_ERR_MODEL_TYPE_MISMATCH "Unsupported model
 *         type"; ZX_ERR_INDEX_OUT_OF_BOUNDS "User ID out of bounds" or, if any item is, "Item ID
 *         out of bounds"; or what zx_tensor_create() records.
 *
 * Threads: any number may score one model while none trains it, unless the batch goes to the
 * device: that is device work, one thread at a time for all models together.
 */
ZX_API zx_tensor_t* zx_model_score(const zx_model_t* model, const uint32_t* users,
                                   const uint32_t* items, uint32_t count);

/**
 * Finds a user's K best items of all items of the model, best first. Items the user knows already
 * are candidates too.
 *
 * A score is dot(user row, item row), see zx_model_score(), for a model with biases (item bias +
 * (user bias + global bias)) + dot. An item that only equals the K-th
 * best so far is not taken; which of several tied ones leaves when a better one comes, and the
 * order of equal scores, are those of a binary min-heap of K entries over the ids in order. A NaN
 * score is taken only if it is among the first K items.
 *
 * @param model       MF model; its scratch arrays are written.
 * @param user_id     the user.
 * @param k           number of items wanted.
 * @param out_items   [k] receives min(k, num_items) ids; the rest stays untouched.
 * @param out_scores  [k] receives their scores.
 * @return ZX_OK; ZX_ERR_NULL_POINTER if a pointer is null or k is 0 (deliberately this code);
 *         ZX_ERR_MODEL_TYPE_MISMATCH (recorded, "zx_recommend only supports MF models");
 *         ZX_ERR_INDEX_OUT_OF_BOUNDS if there is no such user; ZX_ERR_OUT_OF_MEMORY if the scratch
 *         cannot grow. The others are not recorded; after a failure the outputs are untouched.
 *
 * Threads: one at a time per record; see zx_model_t for sharing the tensors.
 * Method: selection with a bounded heap, Knuth, "The Art of Computer Programming", volume 3, 5.2.3.
 */
ZX_API zx_status_t zx_recommend(zx_model_t* model, uint32_t user_id, uint32_t k,
                                uint32_t* out_items, float* out_scores);

/**
 * Scores a list of items for one user. An id that the model does not have scores 0, without bias.
 *
 * A score is dot(user row, item row), see zx_model_score(), for a model with biases (item bias +
 * dot) + (user bias + global bias). A list of 16 or more ids that is exactly 0, 1, 2, ... within
 * the model needs nothing else; for any other list the model's scratch grows to hold the rows,
 * which are read where they stand.
 *
 * @param model       MF model; its scratch array is written.
 * @param user_id     the user.
 * @param item_ids    [count] item ids; borrowed for the call.
 * @param count       number of ids.
 * @param out_scores  [count] receives the scores, in the order of the list.
 * @return ZX_OK; ZX_ERR_NULL_POINTER if a pointer is null or count is 0;
 *         ZX_ERR_MODEL_TYPE_MISMATCH (recorded, "zx_model_score_items only supports MF models");
 *         ZX_ERR_INDEX_OUT_OF_BOUNDS if there is no such user; ZX_ERR_OVERFLOW if count * d exceeds
 *         2^63 - 1; ZX_ERR_OUT_OF_MEMORY if the scratch cannot grow. The others are not recorded.
 *
 * Threads: as zx_recommend().
 */
ZX_API zx_status_t zx_model_score_items(zx_model_t* model, uint32_t user_id,
                                        const uint32_t* item_ids, uint32_t count,
                                        float* out_scores);

/* ---------------------------------------------------------------------------------------------- */
/* Layers                                                                                         */
/* ---------------------------------------------------------------------------------------------- */

/** Kind of a layer. */
typedef uint32_t zx_layer_type_t;

/** Kind of an activation: the layer kinds from 5 to 10, of which 10 has no name and no rule. */
typedef int32_t zx_activation_t;

enum {
    ZX_LAYER_EMBEDDING = 0,  /**< a table of rows */
    ZX_LAYER_DENSE = 1,      /**< weights and a bias */
    ZX_LAYER_BATCH_NORM = 2, /**< batch normalisation */
    ZX_LAYER_DROPOUT = 4,    /**< dropout */
    ZX_ACT_RELU = 5,         /**< rectifier */
    ZX_ACT_LEAKY_RELU = 6,   /**< leaky rectifier */
    ZX_ACT_GELU = 7,         /**< Gaussian error linear unit */
    ZX_ACT_SIGMOID = 8,      /**< logistic function */
    ZX_ACT_TANH = 9          /**< hyperbolic tangent */
};

/** Parameters of an embedding layer. */
typedef struct zx_embedding_params_t {
    uint32_t num_embeddings; /**< number of rows */
    uint32_t embedding_dim;  /**< length of a row */
    float reserved;          /**< -1; for the host's use, never read by the library */
} zx_embedding_params_t;

/** Parameters of a dense layer. */
typedef struct zx_dense_params_t {
    uint32_t in_features;  /**< length of an input row */
    uint32_t out_features; /**< length of an output row */
    uint8_t use_bias;      /**< 1 when the layer has a bias */
} zx_dense_params_t;

/** Parameters of a batch-normalisation layer. */
typedef struct zx_batch_norm_params_t {
    uint32_t num_features; /**< length of a row */
    float epsilon;         /**< 1e-5; for the host's use, as is the next one */
    float momentum;        /**< 0.1 */
} zx_batch_norm_params_t;

/** Parameters of a dropout layer. */
typedef struct zx_dropout_params_t {
    float rate; /**< probability with which an element is dropped */
} zx_dropout_params_t;

/** Parameters of a leaky rectifier. */
typedef struct zx_leaky_relu_params_t {
    float alpha; /**< slope for negative numbers, 0.01 */
} zx_leaky_relu_params_t;

/** Parameters of a layer of any kind; the bytes that the kind does not use are 0. */
typedef union zx_layer_params_t {
    zx_embedding_params_t embedding;   /**< of ZX_LAYER_EMBEDDING */
    zx_dense_params_t dense;           /**< of ZX_LAYER_DENSE */
    zx_batch_norm_params_t batch_norm; /**< of ZX_LAYER_BATCH_NORM */
    zx_dropout_params_t dropout;       /**< of ZX_LAYER_DROPOUT */
    zx_leaky_relu_params_t leaky_relu; /**< of ZX_ACT_LEAKY_RELU */
} zx_layer_params_t;

/**
 * A layer of a neural model. Made by the functions below, which set the tensors that its kind has
 * and leave the others null; the tensors stay within the layer and die with it.
 */
typedef struct zx_layer_t {
    zx_layer_type_t type;          /**< kind, decides which member of params counts */
    zx_layer_params_t params;      /**< parameters of the kind */
    zx_tensor_t* weight;           /**< owned; embedding [num_embeddings x embedding_dim], dense
                                        [out_features x in_features], batch norm [num_features] */
    zx_tensor_t* bias;             /**< owned; dense with bias [out_features], batch norm
                                        [num_features] */
    zx_tensor_t* running_mean;     /**< owned; batch norm [num_features] */
    zx_tensor_t* running_var;      /**< owned; batch norm [num_features] */
    zx_tensor_t* extra_tensors[5]; /**< tensors the host may attach; owned; null at first */
    uint8_t trainable;             /**< 1 when the layer has parameters to train */
    uint8_t training;              /**< mode flag for the host's use; 1 at first */
} zx_layer_t;

/**
 * Makes a bare layer of a kind: no parameters, no tensors, trainable. The functions that follow
 * make layers that are complete.
 *
 * @param type  kind; any value.
 * @return the layer, to be freed with zx_layer_free(); null, nothing recorded, if memory is short.
 *
 * Threads: any, as all that make layers.
 */
ZX_API zx_layer_t* zx_layer_create(zx_layer_type_t type);

/**
 * Makes an activation layer, which has nothing to train; a leaky rectifier's alpha is 0.01.
 *
 * @param kind  5 to 10. 10 makes a layer that zx_layer_forward() refuses.
 * @return the layer, to be freed with zx_layer_free(); null, nothing recorded, if kind is out of
 *         range or memory is short.
 */
ZX_API zx_layer_t* zx_layer_activation(zx_activation_t kind);

/**
 * Makes a dropout layer, which has nothing to train.
 *
 * @param rate  probability with which an element is dropped; not checked.
 * @return the layer, to be freed with zx_layer_free(); null, nothing recorded, if memory is short.
 */
ZX_API zx_layer_t* zx_layer_dropout(float rate);

/**
 * Makes an embedding layer whose table is drawn with zx_rng_fill_xavier(num_embeddings,
 * embedding_dim). It has no forward rule: a host looks its rows up by itself.
 *
 * @param num_embeddings, embedding_dim  shape of the table; not 0.
 * @return the layer, to be freed with zx_layer_free(); null if memory for the record is short (not
 *         recorded) or a tensor cannot be made (recorded by zx_tensor_create()).
 */
ZX_API zx_layer_t* zx_layer_embedding(uint32_t num_embeddings, uint32_t embedding_dim);

/**
 * Makes a dense layer: weights drawn with zx_rng_fill_he(in_features), bias zero.
 *
 * @param in_features   length of an input row; not 0.
 * @param out_features  length of an output row; not 0.
 * @param use_bias      whether the layer has a bias.
 * @return as zx_layer_embedding().
 */
ZX_API zx_layer_t* zx_layer_dense(uint32_t in_features, uint32_t out_features, bool use_bias);

/**
 * Makes a batch-normalisation layer: scale and running variance 1, shift and running mean 0. It has
 * no forward rule: the record is for hosts that normalise by themselves.
 *
 * @param num_features  length of a row; not 0.
 * @return as zx_layer_embedding().
 */
ZX_API zx_layer_t* zx_layer_batch_norm(uint32_t num_features);

/**
 * Runs a layer over the host data of a tensor.
 *
 *  - Dense: a new [B x out_features] tensor, B being the input's first extent: each output is the
 *    sum, in order, of weight * input, plus the bias if there is one. Elements are those of
 *    zx_tensor_get_2d(), so an input of one axis counts as zeros, and so does a missing weight. The
 *    bias tensor decides whether there is a bias, not the parameters; what it is too short for gets
 *    none.
 *  - Dropout: when training, with a rate above 0, a new tensor: for each element in order one draw
 *    u of zx_rng_uniform(); u >= rate keeps the element, times 1 / (1 - rate), else it becomes 0.
 *    Otherwise the input itself, with a reference more.
 *  - Activations: a new tensor of the same shape, element by element. Rectifier: a negative number
 *    becomes 0. Leaky rectifier: a negative number is multiplied by alpha. GELU: (tanh(0.7978846 *
 *    t) + 1) * 0.5 * x with t = (x * x) * (0.044715 * x) + x, in this grouping, so -infinity gives
 *    a NaN. Logistic: 1 / (exp(-x) + 1). Hyperbolic tangent. All of them hand a NaN on.
 *
 * The layer's own training flag is not looked at.
 *
 * @param layer     the layer.
 * @param input     the input; dense: [B x in_features].
 * @param training  whether dropout drops.
 * @return the output, to be released by the caller; null if layer or input is null (not recorded);
 *         else null, recorded: ZX_ERR_INVALID_LAYER "Unknown layer type" for every other kind,
 *         embeddings and batch normalisation included, deliberately; ZX_ERR_DIMENSION_MISMATCH
 *         "Dense layer input dimension mismatch" if the input's second extent is not in_features,
 *         or if input or weight (wrapped, with fewer elements) has not the rows that its first two
 *         extents announce;
 *         or what zx_tensor_create() records, also for an input without elements.
 *
 * Threads: any number may run one layer; dropout advances the calling thread's generator.
 * Method: Srivastava, Hinton, Krizhevsky, Sutskever, Salakhutdinov, "Dropout: A Simple Way to
 * Prevent Neural Networks from Overfitting", JMLR 2014; Hendrycks, Gimpel, "Gaussian Error Linear
 * Units", 2016, the tanh form.
 */
ZX_API zx_tensor_t* zx_layer_forward(const zx_layer_t* layer, zx_tensor_t* input, bool training);

/** Frees a layer and releases its tensors; null is ignored. Threads: the last to use it. */
ZX_API void zx_layer_free(zx_layer_t* layer);

/* ---------------------------------------------------------------------------------------------- */
/* Training and evaluation                                                                        */
/* ---------------------------------------------------------------------------------------------- */

/** Update rule of an optimiser. The value 4 has no meaning. */
typedef uint32_t zx_optimizer_type_t;

enum {
    ZX_OPT_SGD = 0,          /**< stochastic gradient descent */
    ZX_OPT_SGD_MOMENTUM = 1, /**< the same with momentum */
    ZX_OPT_ADAM = 2,         /**< Adam */
    ZX_OPT_ADAMW = 3,        /**< Adam with decoupled weight decay */
    ZX_OPT_ALS = 5           /**< alternating least squares */
};

/** An update rule and its numbers, passed by value. What a rule does not use is 0. */
typedef struct zx_optimizer_config_t {
    zx_optimizer_type_t type; /**< update rule */
    float learning_rate;      /**< step size; 0 for ALS, which has none */
    float momentum;           /**< momentum coefficient */
    uint8_t reserved_flag_1;  /**< 0; never read */
    float beta1;              /**< first-moment decay; 0.9 for Adam and AdamW */
    float beta2;              /**< second-moment decay; 0.999 for Adam and AdamW */
    float epsilon;            /**< denominator guard; 1e-8 */
    float weight_decay;       /**< decoupled weight decay */
    float regularization;     /**< L2 weight */
    uint32_t reserved_word;   /**< 0; never read */
    uint8_t reserved_flag_2;  /**< 0; never read */
} zx_optimizer_config_t;

/**
 * An optimiser: a configuration, a step counter and room for a state tensor per parameter tensor of
 * a model. It keeps books and does not update: the updates are made by zx_model_train_step_bpr()
 * and zx_model_train_als_epoch(), which take their numbers as arguments.
 */
typedef struct zx_optimizer_t {
    zx_optimizer_config_t config; /**< copy of the configuration */
    uint64_t step_count;          /**< calls of zx_optimizer_step() with both arguments */
    zx_tensor_t** first_moment;   /**< [num_state] tensors the host may attach, all null at first;
                                       owned, array and tensors; null when there is no array */
    zx_tensor_t** second_moment;  /**< the same; with Adam and AdamW only */
    uint32_t num_state;           /**< parameter tensors of the model: 4 with biases, else 2; 0 for
                                       an optimiser without state */
    uint32_t reserved_count;      /**< 0 */
} zx_optimizer_t;

/** Returns a configuration for stochastic gradient descent. Threads: any, here and below. */
ZX_API zx_optimizer_config_t zx_optimizer_sgd(float learning_rate);

/** Returns a configuration for stochastic gradient descent with momentum. */
ZX_API zx_optimizer_config_t zx_optimizer_sgd_momentum(float learning_rate, float momentum);

/** Returns a configuration for Adam (Kingma, Ba, ICLR 2015). */
ZX_API zx_optimizer_config_t zx_optimizer_adam(float learning_rate);

/** Returns a configuration for AdamW (Loshchilov, Hutter, ICLR 2019). */
ZX_API zx_optimizer_config_t zx_optimizer_adamw(float learning_rate, float weight_decay);

/** Returns a configuration for alternating least squares. */
ZX_API zx_optimizer_config_t zx_optimizer_als(float regularization);

/**
 * Makes an optimiser. Its state arrays are made for the rules that keep state (momentum, Adam,
 * AdamW) and an MF model; no state tensor is made.
 *
 * @param model   the model, only read during the call, or null for no state.
 * @param config  the configuration; copied, not checked.
 * @return the optimiser, to be freed with zx_optimizer_free(); null, nothing recorded, if memory
 *         for it is short. A state array that cannot be had stays null, num_state being as with it,
 *         and nothing tells.
 *
 * Threads: any; the model must not be released meanwhile.
 */
ZX_API zx_optimizer_t* zx_optimizer_create(const zx_model_t* model, zx_optimizer_config_t config);

/**
 * Frees an optimiser and releases the tensors in its state arrays; null is ignored.
 *
 * Threads: the last to use it.
 */
ZX_API void zx_optimizer_free(zx_optimizer_t* optimizer);

/**
 * Counts a step and refuses it, deliberately: the model is never changed, and the message names the
 * function that trains it.
 *
 * @param optimizer  its step counter rises.
 * @param model      any model; not looked at.
 * @return ZX_ERR_NULL_POINTER if optimizer or model is null (not recorded, not counted); else
 *         ZX_ERR_MODEL_NOT_CONFIGURED (recorded, "Use zx_model_train_step_bpr for BPR training").
 *
 * Threads: an optimiser belongs to one thread at a time.
 */
ZX_API zx_status_t zx_optimizer_step(zx_optimizer_t* optimizer, zx_model_t* model);

/**
 * Does nothing: training applies its updates directly, and there are no gradients to clear.
 *
 * Threads: any.
 */
ZX_API void zx_optimizer_zero_grad(zx_optimizer_t* optimizer);

/** A loss function. The values 2 to 5 have no meaning. */
typedef uint32_t zx_loss_type_t;

enum {
    ZX_LOSS_MSE = 0,        /**< mean squared error */
    ZX_LOSS_BPR = 1,        /**< Bayesian personalised ranking */
    ZX_LOSS_CONTRASTIVE = 6 /**< contrastive; can be configured, but not computed */
};

/** A loss function and its numbers, passed by value. */
typedef struct zx_loss_config_t {
    zx_loss_type_t type;   /**< loss function */
    uint32_t reserved;     /**< 0; never read */
    float margin;          /**< margin of the contrastive loss; 1 for the others */
    uint8_t reserved_flag; /**< 1; never read */
} zx_loss_config_t;

/** Returns a configuration for the mean squared error. Threads: any, here and below. */
ZX_API zx_loss_config_t zx_loss_mse(void);

/** Returns a configuration for the BPR loss. */
ZX_API zx_loss_config_t zx_loss_bpr(void);

/** Returns a configuration for the contrastive loss. */
ZX_API zx_loss_config_t zx_loss_contrastive(float margin);

/**
 * Computes the mean loss between two tensors, from their host data, as flat arrays of n elements
 * whatever their shapes.
 *
 *  - MSE: the mean of (a[i] - b[i])^2.
 *  - BPR: the mean of -ln sigmoid(x), x = a[i] - b[i], taken as 0 above x = 35 and as -x below -35;
 *    a holds the scores of positive items, b those of negative ones.
 *
 * Terms are added in order, in single precision.
 *
 * @param config  the loss function.
 * @param a, b    tensors of n elements each.
 * @return the loss; a NaN when n is 0, deliberately; 0 if a or b is null or has elements but no
 *         host data, or if their numbers of elements differ (not recorded), which looks like a
 *         perfect fit; 0, before anything else
 *         is looked at, for any other loss function (recorded, ZX_ERR_INVALID_ARGUMENT "Unknown
 *         loss type").
 *
 * Threads: any number may read the tensors.
 */
ZX_API float zx_loss_compute(zx_loss_config_t config, const zx_tensor_t* a, const zx_tensor_t* b);

/**
 * Computes the loss as zx_loss_compute() does and, for MSE only, its gradient with respect to a:
 * grad[i] = (a[i] - b[i]) * (2 / n).
 *
 * @param config, a, b  as for zx_loss_compute().
 * @param grad          receives the gradient in its host data, which must hold n floats or more:
 *                      its size is not checked, and which of its copies counts as current does not
 *                      change. May be null or without data; must not be a or b. Untouched for
 *                      other loss functions and where the result is 0 for lack of two tensors of
 *                      one size.
 * @return as zx_loss_compute().
 *
 * Threads: as zx_loss_compute(); nothing else may use grad meanwhile.
 */
ZX_API float zx_loss_backward(zx_loss_config_t config, const zx_tensor_t* a, const zx_tensor_t* b,
                              zx_tensor_t* grad);

/**
 * Runs one pass of Bayesian personalised ranking (BPR) updates over a batch of triples, in order.
 *
 * For a triple (user, positive item, negative item) let x be the positive item's score minus the
 * negative one's and g = learning_rate * sigmoid(-x), taken as 0 above x = 35 and as learning_rate
 * below -35. The three embedding rows shrink by (1 - learning_rate * regularization), then the user
 * row moves by g towards the positive and away from the negative row, and the item rows move by g
 * along the user row as it was before the triple (as it is now, deliberately, when d > 512 and
 * count < 256). With biases, the positive item's rises and the negative item's falls by g; biases
 * do not shrink. A triple sees the updates of those before it.
 *
 * 512 triples or more are run on the device when zx_gpu_is_ready(), by zx_gpu_bpr_batch_update();
 * the new tables are then on the device only, their on_device flags set, until zx_tensor_to_host().
 * Fewer triples, and all that the device refuses, are run on the host, on the host data, whatever
 * the flags say, and leave the flags as they are, deliberately. A host that mixes the sides sees to
 * it itself: it brings the tables back before a host step, and clears their flags or uploads them
 * after one; a flag that is still set lets the next device batch read the old device copy, and
 * zx_tensor_to_host() or zx_tensor_sync() overwrite what the host trained. After a refused launch
 * the flags are set too: a host that must know which side ran calls zx_gpu_bpr_batch_update()
 * itself.
 *
 * @param model           MF model, updated in place: user embeddings [num_users x d], item
 *                        embeddings [num_items x d] and, with biases, item biases [num_items].
 * @param users           [count] user ids; borrowed for the call, as are the next two arrays.
 * @param pos_items       [count] ids of items the user interacted with.
 * @param neg_items       [count] ids of sampled items, see zx_sample_negatives_uniform().
 * @param count           number of triples; 0 is valid and changes nothing.
 * @param learning_rate   step size, without unit.
 * @param regularization  L2 weight, applied once per occurrence of a row, even where g is 0.
 * @return ZX_OK, also when triples with an id out of range were skipped;
 *         ZX_ERR_NULL_POINTER if model or an array is null (not recorded);
 *         ZX_ERR_MODEL_TYPE_MISMATCH (recorded, "BPR training only supported for MF");
 *         ZX_ERR_OUT_OF_MEMORY if the scratch row cannot be had (not recorded).
 *         After any error the model is unchanged.
 *
 * Threads: nothing else may use the model during the call; a batch that goes to the device is
 * device work, one thread at a time for all models together. Method: Rendle, Freudenthaler,
 * Gantner, Schmidt-Thieme, "BPR: Bayesian Personalized Ranking from Implicit Feedback", UAI 2009,
 * algorithm LearnBPR, the L2 term as a shrink before the step.
 */
ZX_API zx_status_t zx_model_train_step_bpr(zx_model_t* model, const uint32_t* users,
                                           const uint32_t* pos_items, const uint32_t* neg_items,
                                           uint32_t count, float learning_rate,
                                           float regularization);

/**
 * Runs one epoch of alternating least squares (ALS) for implicit feedback: solves every user row
 * with the item rows held fixed, then every item row with the new user rows held fixed.
 *
 * An entry of strength r is a positive preference of confidence 1 + alpha * r; a pair without entry
 * is a negative of confidence 1. A user's row x solves (Y'Y + regularization * I + sum of alpha * r
 * * y y') x = sum of (1 + alpha * r) * y over the user's entries; items alike. A row without
 * entries becomes zero. Biases are not touched. Pivots below 1e-10 are skipped, so a singular
 * system does not fail.
 *
 * @param model           MF model, updated in place.
 * @param interactions    CSR matrix with a row per user and a column per item; entries may be in
 *                        any order within a row.
 * @param num_threads     accepted for hosts that plan for workers; the epoch runs on the calling
 *                        thread, and the result does not depend on it.
 * @param alpha           how much an entry's strength adds to its confidence.
 * @param regularization  L2 weight, added to each system's diagonal.
 * @return ZX_OK;
 *         ZX_ERR_NULL_POINTER if model or interactions is null (not recorded);
 *         ZX_ERR_MODEL_TYPE_MISMATCH (recorded, "ALS only supports Matrix Factorization");
 *         ZX_ERR_DIMENSION_MISMATCH (recorded, "Interactions do not fit the model") if the matrix
 *         has fewer rows than the model has users or, among those rows, starts that decrease or
 *         exceed nnz, or columns that the model does not have; the model is unchanged;
 *         ZX_ERR_OUT_OF_MEMORY (not recorded) if scratch cannot be had, and always for a matrix
 *         without entries: the user rows may then be solved already, the item rows not.
 *
 * Threads: nothing else may use the model during the call.
 * Method: Hu, Koren, Volinsky, "Collaborative Filtering for Implicit Feedback Datasets", ICDM 2008.
 * The last bits of the result depend on whether the library's inner loops use fused multiply-add on
 * this processor, on nothing else.
 */
ZX_API zx_status_t zx_model_train_als_epoch(zx_model_t* model, const zx_sparse_t* interactions,
                                            uint32_t num_threads, float alpha,
                                            float regularization);

/** A list of observed (user, item) events for the host to fill; the library never reads it. */
typedef struct zx_interactions_t {
    uint32_t* users;  /**< [count] user ids; owned */
    uint32_t* items;  /**< [count] item ids; owned */
    float* values;    /**< [count] strengths; owned; null for an implicit set */
    uint32_t count;   /**< number of interactions */
    uint8_t implicit; /**< 1 when the set has no strengths */
} zx_interactions_t;

/**
 * Makes a zero-filled interaction set, freed with zx_interactions_free().
 *
 * @param count     number of interactions; not 0, deliberately.
 * @param implicit  true for a set without strengths.
 * @return the set; null, nothing recorded, if count is 0 or memory is short.
 */
ZX_API zx_interactions_t* zx_interactions_create(uint32_t count, bool implicit);

/** Frees an interaction set and its arrays; null is ignored. */
ZX_API void zx_interactions_free(zx_interactions_t* interactions);

/**
 * Draws for each user an item, uniformly and with up to 100 tries, that the user has not interacted
 * with. If all 100 are positives of the user, the last one is taken, deliberately.
 *
 * @param positives  CSR matrix of the users' positives, or null to reject nothing; an entry of 0
 *                   or NaN counts as none, and so does a user beyond its rows.
 * @param users      [count] user ids; borrowed for the call.
 * @param out_items  [count] receives an item for each.
 * @param count      number of users.
 * @param num_items  items are drawn from 0 to num_items - 1; above 2^24 not every item can be
 *                   drawn.
 *
 * Writes nothing if users or out_items is null or count or num_items is 0. Nothing is recorded.
 *
 * Threads: any number at once; each draws from its own generator, one draw per try.
 */
ZX_API void zx_sample_negatives_uniform(const zx_sparse_t* positives, const uint32_t* users,
                                        uint32_t* out_items, uint32_t count, uint32_t num_items);

/**
 * Estimates the hit rate at K on held-out pairs with a sampled ranking: a pair is a hit when fewer
 * than K of 10 * K uniformly drawn items score strictly higher than the held-out one. Scores are
 * dot products without biases. Draws are with replacement and may hit any item.
 *
 * @param model  MF model.
 * @param users  [count] users of the pairs; a pair whose user the model does not have is a miss.
 * @param items  [count] held-out items; one that the model does not have scores 0.
 * @param count  number of pairs.
 * @param k      K; 0 gives 0. 10 * K is taken in 32 bits; if it wraps to 0, nothing is drawn and
 *               every pair whose user is known is a hit.
 * @return the share of hits, 0 to 1; 0 if an argument is null or count is 0. Never fails, but a
 *         failed lookup leaves its record, see zx_model_lookup_user_embeddings().
 *
 * Threads: any number may measure one model while none trains it; advances the calling thread's
 * generator.
 * Method: sampled evaluation as in Koren, "Factorization Meets the Neighborhood", KDD 2008. A
 * sampled figure is not comparable with one over the full ranking: Krichene, Rendle, "On Sampled
 * Metrics for Item Recommendation", KDD 2020.
 */
ZX_API float zx_metric_hit_rate(const zx_model_t* model, const uint32_t* users,
                                const uint32_t* items, uint32_t count, uint32_t k);

/* ---------------------------------------------------------------------------------------------- */
/* Device kernels                                                                                 */
/* ---------------------------------------------------------------------------------------------- */

/**
 * Finds the kernel file "zorvex_kernels.cl", builds it and makes its kernels. Looks in ./,
 * src/kernels/, ../src/kernels/, ../share/zorvex/, /usr/local/share/zorvex/, /usr/share/zorvex/ and
 * /opt/homebrew/share/zorvex/, in this order, and takes the first readable file. A kernel that the
 * file lacks is no error. zx_engine_init() calls this.
 *
 * Says on standard output what it loads and that it has, at the verbosity of information lines. A
 * kernel file is code and is trusted as such.
 *
 * @return ZX_OK, at once if kernels are loaded already; else, recorded,
 *         ZX_ERR_ENGINE_NOT_INITIALIZED "Engine not initialized"; ZX_ERR_INVALID_ARGUMENT "Kernel
 *         file not found. Searched: ..."; ZX_ERR_KERNEL_COMPILE "Kernels not compiled"; or what
 *         zx_engine_compile_kernels_file() returns.
 *
 * Threads: as zx_engine_init_with_device().
 */
ZX_API zx_status_t zx_gpu_init(void);

/** As zx_gpu_init(), with the given kernel file and without a search. */
ZX_API zx_status_t zx_gpu_init_from_file(const char* path);

/**
 * Releases the kernels and says so on standard output; does nothing when none are loaded. The
 * engine's program stays.
 */
ZX_API void zx_gpu_shutdown(void);

/** Returns whether kernels are loaded and the engine runs. */
ZX_API bool zx_gpu_is_ready(void);

/**
 * @name Operations on tensors on the device
 *
 * None has a host counterpart, and all fail without kernels.
 *
 * Each checks, in this order: kernels are loaded (else ZX_ERR_ENGINE_NOT_INITIALIZED, recorded,
 * "GPU not initialized"); its tensors, in the order of its arguments, are not null and have host
 * data (else ZX_ERR_NULL_POINTER, recorded, "NULL tensor"); what its own comment says, ids apart;
 * every count fits 31 bits (else ZX_ERR_OVERFLOW, recorded, "Element count exceeds 32 bits") and
 * every tensor has the elements that the kernel touches (else ZX_ERR_DIMENSION_MISMATCH, recorded,
 * "Tensor shapes do not fit"); ids are in their tables. Then it uploads the tensors whose device
 * copy is not current, inputs first, returning the first failure of zx_tensor_to_device(), and
 * enqueues its kernel (else ZX_ERR_KERNEL_EXEC, also when the kernel file lacks the kernel).
 *
 * Unless said otherwise an operation neither waits nor copies back: its result is current on the
 * device, and the host data is stale until zx_tensor_to_host(). A tensor's on_device flag says
 * which copy counts; a host that writes through zx_tensor_data() uploads again before device work.
 * An output that is also an input has undefined contents, but for the operations that say so and
 * the element-wise ones.
 *
 * Threads: device work, one thread at a time; the engine's in-order queue orders the operations.
 *
 * @{
 */

/**
 * output = input * transposed weight, plus bias, negative results becoming 0 with relu.
 *
 * @param output  [m x n] receives the result.
 * @param input   [m x k].
 * @param weight  [n x k], a row for each output unit.
 * @param bias    [n], or null for none.
 * @param relu    whether to apply the rectifier.
 * @return ZX_OK, or a failure as above; a refused launch is recorded, "Dense forward kernel
 *         failed".
 */
ZX_API zx_status_t zx_gpu_dense_forward(zx_tensor_t* output, zx_tensor_t* input,
                                        zx_tensor_t* weight, zx_tensor_t* bias, bool relu);

/**
 * c = a * transposed b.
 *
 * @param c  [m x n] receives the product.
 * @param a  [m x k].
 * @param b  [n x k].
 * @return ZX_OK, or a failure as above; a refused launch is recorded, "Matmul kernel failed".
 */
ZX_API zx_status_t zx_gpu_matmul(zx_tensor_t* c, zx_tensor_t* a, zx_tensor_t* b);

/**
 * Copies rows of a table.
 *
 * @param output   [count x d] receives the rows.
 * @param table    [rows x d].
 * @param indices  [count] rows wanted; borrowed for the call. One that the table does not have
 *                 gives zeros.
 * @param count    number of rows wanted; 0 is reported as an index buffer that cannot be made.
 * @return ZX_OK, or a failure as above, and, recorded, ZX_ERR_NULL_POINTER "NULL indices";
 *         ZX_ERR_ALLOCATION_FAILED "Failed to create index buffer"; a refused launch is recorded,
 *         "Embedding lookup kernel failed".
 */
ZX_API zx_status_t zx_gpu_embedding_lookup(zx_tensor_t* output, zx_tensor_t* table,
                                           const uint32_t* indices, uint32_t count);

/**
 * output[r] = dot product of rows r of a and b.
 *
 * @param output  [rows] receives the products.
 * @param a, b    [rows x d].
 * @return ZX_OK, or a failure as above; a refused launch is recorded, "Batched dot product failed".
 */
ZX_API zx_status_t zx_gpu_batched_dot(zx_tensor_t* output, zx_tensor_t* a, zx_tensor_t* b);

/**
 * scores[i] = dot product of user and row i of items.
 *
 * @param scores  [num_items] receives the scores.
 * @param user    [d].
 * @param items   [num_items x d].
 * @return ZX_OK, or a failure as above; a refused launch is recorded, "Score all items failed".
 */
ZX_API zx_status_t zx_gpu_score_all_items(zx_tensor_t* scores, zx_tensor_t* user,
                                          zx_tensor_t* items);

/*
 * The operations from here on record nothing for a refused launch, deliberately.
 */

/** Replaces each element by max(x, 0). Fails as above. */
ZX_API zx_status_t zx_gpu_relu(zx_tensor_t* x);

/** Replaces each element by its logistic function, 1 / (1 + exp(-x)). Fails as above. */
ZX_API zx_status_t zx_gpu_sigmoid(zx_tensor_t* x);

/** Replaces each element by its hyperbolic tangent. Fails as above. */
ZX_API zx_status_t zx_gpu_tanh(zx_tensor_t* x);

/**
 * Replaces each element by its Gaussian error linear unit in the tanh form. Fails as above.
 *
 * Method: Hendrycks, Gimpel, "Gaussian Error Linear Units", 2016.
 */
ZX_API zx_status_t zx_gpu_gelu(zx_tensor_t* x);

/** Replaces each element that is not above 0 by alpha times it. Fails as above. */
ZX_API zx_status_t zx_gpu_leaky_relu(zx_tensor_t* x, float alpha);

/**
 * Replaces each row of x by its softmax, stable for large values.
 *
 * @param x  a tensor of two axes, else ZX_ERR_DIMENSION_MISMATCH (recorded, "Softmax requires 2D
 *           tensor"), tested right after the null test. Fails as above otherwise.
 */
ZX_API zx_status_t zx_gpu_softmax_rows(zx_tensor_t* x);

/**
 * Normalises each row of x to mean 0 and variance 1, times gamma, plus beta.
 *
 * @param x            [rows x cols], replaced.
 * @param gamma, beta  [cols].
 * @param eps          added to the variance.
 *
 * Fails as above.
 * Method: Ba, Kiros, Hinton, "Layer Normalization", 2016.
 */
ZX_API zx_status_t zx_gpu_layer_norm(zx_tensor_t* x, zx_tensor_t* gamma, zx_tensor_t* beta,
                                     float eps);

/**
 * output[r] = cosine between rows r of a and b; 0 where one of them is zero.
 *
 * @param output  [rows] receives the cosines.
 * @param a, b    [rows x d].
 *
 * Fails as above.
 */
ZX_API zx_status_t zx_gpu_cosine_similarity(zx_tensor_t* output, zx_tensor_t* a, zx_tensor_t* b);

/** output = a + b over the elements of a; the three may be one tensor. Fails as above. */
ZX_API zx_status_t zx_gpu_vec_add(zx_tensor_t* output, zx_tensor_t* a, zx_tensor_t* b);

/** x = x * s. Fails as above. */
ZX_API zx_status_t zx_gpu_vec_scale(zx_tensor_t* x, float s);

/** y = alpha * x + y over the elements of x. Fails as above. */
ZX_API zx_status_t zx_gpu_vec_axpy(zx_tensor_t* x, zx_tensor_t* y, float alpha);

/**
 * Runs the BPR update of zx_model_train_step_bpr() for one triple of vectors, which always sees the
 * old user vector.
 *
 * @param user_vec          [d], updated, as are the next two.
 * @param pos_vec, neg_vec  [d].
 * @param lr, reg           step size and L2 weight.
 *
 * Fails as above.
 */
ZX_API zx_status_t zx_gpu_bpr_update(zx_tensor_t* user_vec, zx_tensor_t* pos_vec,
                                     zx_tensor_t* neg_vec, float lr, float reg);

/**
 * Runs BPR updates for a batch of triples at once and waits for them. Triples that share a row may
 * lose updates of it; those that do not are updated as by zx_model_train_step_bpr(), always from
 * the old user row. The tables are current on the device afterwards.
 *
 * @param user_emb                   [num_users x d], updated.
 * @param item_emb                   [num_items x d], updated.
 * @param item_bias                  [num_items], updated if use_bias; may be null.
 * @param users, pos_items, neg_items  [batch] ids; borrowed for the call.
 * @param batch                      number of triples.
 * @param use_bias                   whether biases take part; give item_bias with it. Without it
 * the call succeeds, deliberately, and the first num_items numbers of the item table are taken, and
 * changed, as biases.
 * @param lr, reg                    step size and L2 weight.
 * @return ZX_OK, or a failure as above, and ZX_ERR_NULL_POINTER (recorded, "NULL batch arrays") if
 *         an id array is null; ZX_ERR_INDEX_OUT_OF_BOUNDS (not recorded) if an id is not in its
 *         table, nothing being changed; ZX_ERR_ALLOCATION_FAILED (not recorded) if the ids cannot
 *         be uploaded, as when batch is 0.
 */
ZX_API zx_status_t zx_gpu_bpr_batch_update(zx_tensor_t* user_emb, zx_tensor_t* item_emb,
                                           zx_tensor_t* item_bias, const uint32_t* users,
                                           const uint32_t* pos_items, const uint32_t* neg_items,
                                           uint32_t batch, bool use_bias, float lr, float reg);

/**
 * Scores a batch of pairs: dot(user row, item row), plus the item bias if use_bias, and copies the
 * scores back to the host.
 *
 * @param user_emb      [num_users x d].
 * @param item_emb      [num_items x d].
 * @param item_bias     [num_items]; may be null.
 * @param users, items  [batch] ids; borrowed for the call.
 * @param scores        [batch] or more; receives the scores, current on the host.
 * @param batch         number of pairs.
 * @param use_bias      whether the item bias takes part; give item_bias with it.
 * @return as zx_gpu_bpr_batch_update(), and the failure of zx_tensor_to_host().
 */
ZX_API zx_status_t zx_gpu_batched_score(zx_tensor_t* user_emb, zx_tensor_t* item_emb,
                                        zx_tensor_t* item_bias, const uint32_t* users,
                                        const uint32_t* items, zx_tensor_t* scores, uint32_t batch,
                                        bool use_bias);

/** @} */

/* ---------------------------------------------------------------------------------------------- */
/* Files                                                                                          */
/* ---------------------------------------------------------------------------------------------- */

/**
 * Writes an MF model's host data to a model file (".zxm", version 1) and says so on standard
 * output, at the verbosity of information lines. The global bias and the mode flag are not kept. A
 * failure leaves what was written so far; write to a new name and rename it where that matters.
 *
 * @param model  MF model.
 * @param path   the file; created or overwritten.
 * @return ZX_OK; else, recorded, ZX_ERR_NULL_POINTER "NULL model or path"; ZX_ERR_FILE_OPEN "Failed
 *         to open file for writing"; ZX_ERR_MODEL_TYPE_MISMATCH "Unsupported model type for
 *         serialization" (an empty file is left); ZX_ERR_FILE_WRITE "Failed to write header",
 *         "Failed to write descriptors" or "Failed to write tensor data".
 *
 * Threads: the model must not be trained during the call.
 */
ZX_API zx_status_t zx_model_save(const zx_model_t* model, const char* path);

/**
 * Reads a model file and says so on standard output, at the verbosity of information lines. Nothing
 * in a file makes the library read or write outside its memory; the extents in it decide how much
 * memory and time the model takes, so a host that loads files of strangers looks at them first.
 * Tensors that the file does not name, and elements beyond the data it gives, keep what
 * zx_model_mf_create() gave them.
 *
 * @param path  the file.
 * @return the model, owned by the caller, with a global bias of 0; else null, recorded:
 *         ZX_ERR_NULL_POINTER "NULL path"; ZX_ERR_FILE_OPEN "Failed to open file for reading";
 *         ZX_ERR_FILE_READ "Failed to read header", "Failed to read descriptors" or "Failed to read
 *         tensor data" (also when a tensor's data is longer than the tensor);
 *         ZX_ERR_DATA_CORRUPTED "Invalid file magic"; ZX_ERR_VERSION_MISMATCH "File version newer
 *         than library"; ZX_ERR_OUT_OF_MEMORY "Failed to allocate descriptors" (also when there are
 *         none); ZX_ERR_MODEL_TYPE_MISMATCH "Unknown model type"; or what zx_model_mf_create()
 *         leaves.
 *
 * Threads: any; advances the calling thread's generator as zx_model_mf_create() does.
 */
ZX_API zx_model_t* zx_model_load(const char* path);

/**
 * Writes one tensor's host data to a tensor file: 512 bytes that hold its shape, then the elements.
 * Writing is not tested, deliberately: a full disk leaves a short file, and ZX_OK.
 *
 * @param tensor  any shape; a tensor that is current on the device is brought back by the caller.
 * @param path    the file; created or overwritten.
 * @param name    kept in the file, cut to its first 255 characters; may be null.
 * @return ZX_OK; else, recorded, ZX_ERR_NULL_POINTER "NULL tensor or path" or, if a tensor with
 *         elements has no host data, "NULL tensor data"; ZX_ERR_FILE_OPEN "Failed to open file".
 *
 * Threads: the tensor must not be written during the call.
 */
ZX_API zx_status_t zx_tensor_save(const zx_tensor_t* tensor, const char* path, const char* name);

/**
 * Reads the first tensor of a tensor file or of a model file. Of the header only the magic is
 * looked at. Reading is not tested, deliberately: elements that the file does not give are 0, and
 * where no file can have the stated offset (2^63 or more) the bytes behind the descriptor are
 * taken. Nothing in a file makes the library read or write outside its memory; the extents in it
 * decide how much memory the tensor takes, so a host that loads files of strangers looks at them
 * first.
 *
 * @param path  the file.
 * @return the tensor, owned by the caller; else null, recorded: ZX_ERR_NULL_POINTER "NULL path";
 *         ZX_ERR_FILE_OPEN "Failed to open file"; ZX_ERR_DATA_CORRUPTED "Invalid magic" (also when
 *         the file is too short for one); ZX_ERR_FILE_READ "Failed to read tensor data" (the data
 *         is longer than the tensor); or what zx_tensor_create() records for the shape.
 *
 * Threads: any.
 */
ZX_API zx_tensor_t* zx_tensor_load(const char* path);

/**
 * Writes one tensor's host data to a file that holds nothing else: the elements as 32-bit floats,
 * row-major, little-endian. Arguments, results and threads as zx_tensor_save(); writing is not
 * tested either.
 */
ZX_API zx_status_t zx_tensor_to_raw(const zx_tensor_t* tensor, const char* path);

/**
 * Reads a tensor whose shape the caller knows from a file of floats. What follows the last element
 * is ignored.
 *
 * @param path  the file.
 * @param ndim  number of axes, 1 to 4.
 * @param dims  [ndim] extents, slowest first.
 * @return the tensor, owned by the caller; else null, recorded: ZX_ERR_NULL_POINTER "NULL path or
 *         dims"; ZX_ERR_FILE_OPEN "Failed to open file"; what zx_tensor_create() records for the
 *         shape; ZX_ERR_FILE_READ "Incomplete read" (the file is shorter than the shape).
 *
 * Threads: any.
 */
ZX_API zx_tensor_t* zx_tensor_from_raw(const char* path, uint32_t ndim, const uint32_t* dims);

/**
 * Writes one tensor's host data as a NumPy array file (".npy", version 1.0): little-endian 32-bit
 * floats, C order, which numpy.load() reads as an array of the same shape. Writing is not tested,
 * deliberately: a full disk leaves a short file, and ZX_OK.
 *
 * @param tensor  any shape; a tensor that is current on the device is brought back by the caller.
 * @param path    the file; created or overwritten.
 * @return ZX_OK; else, recorded: ZX_ERR_NULL_POINTER "NULL tensor or path"; ZX_ERR_INVALID_ARGUMENT
 *         "Invalid tensor dimensions" (a record made by hand with more than four axes);
 *         ZX_ERR_NULL_POINTER "NULL tensor data" (elements, but no host data); ZX_ERR_FILE_OPEN
 *         "Failed to open file".
 *
 * Threads: the tensor must not be written during the call.
 * Method: the file format is NumPy's, see numpy.lib.format in its manual.
 */
ZX_API zx_status_t zx_tensor_to_npy(const zx_tensor_t* tensor, const char* path);

/**
 * Writes an MF model's two embedding tables as user_embeddings.npy and item_embeddings.npy, each as
 * zx_tensor_to_npy(), and says so on standard output, at the verbosity of information lines. The
 * biases are not written. A failure leaves what was written so far.
 *
 * @param model  MF model.
 * @param dir    the directory for both; made, with mode 0755, if nothing of that name exists. A
 *               path of a file in it is cut to 511 characters, deliberately.
 * @return ZX_OK; else, recorded: ZX_ERR_NULL_POINTER "NULL model or path"; ZX_ERR_FILE_OPEN "Failed
 *         to create directory"; ZX_ERR_MODEL_TYPE_MISMATCH "Unknown model type" (the directory is
 *         there by then); or what zx_tensor_to_npy() records.
 *
 * Threads: the model must not be trained during the call.
 */
ZX_API zx_status_t zx_model_to_npy_dir(const zx_model_t* model, const char* dir);

/**
 * Writes tensors' host data as one safetensors file, in the order of the list, every one as "F32".
 * Writing is not tested, deliberately: a full disk leaves a short file, and ZX_OK.
 *
 * @param tensors  [count] tensors of any shape; borrowed. A null one is skipped, but the comma
 *                 behind it stays, deliberately: a list that begins with one makes a header that is
 *                 no JSON. One without host data is announced and not written, so that later data
 *                 shift.
 * @param names    [count] their names, written without escaping; may be null where the tensor is.
 * @param count    length of both lists, at least 1.
 * @param path     the file; created or overwritten.
 * @return ZX_OK; else, recorded: ZX_ERR_NULL_POINTER "Invalid arguments" (also when count is 0 or a
 *         tensor has no name); ZX_ERR_INVALID_ARGUMENT "Invalid tensor dimensions" (a record made
 *         by hand with more than four axes); ZX_ERR_FILE_OPEN "Failed to open file";
 *         ZX_ERR_OUT_OF_MEMORY "Failed to allocate header" (an empty file is left).
 *
 * Threads: the tensors must not be written during the call.
 * Method: the file format is described in the README of the safetensors project.
 */
ZX_API zx_status_t zx_tensors_to_safetensors(zx_tensor_t* const* tensors, const char* const* names,
                                             uint32_t count, const char* path);

/**
 * Writes an MF model's tables and biases as one safetensors file and says so on standard output, at
 * the verbosity of information lines. The tensors, those of them that exist, are "user_embeddings",
 * "item_embeddings", "user_biases" and "item_biases"; the global bias is not written.
 *
 * @param model  MF model.
 * @param path   the file; created or overwritten.
 * @return ZX_OK; else, recorded: ZX_ERR_NULL_POINTER "NULL model or path";
 *         ZX_ERR_MODEL_TYPE_MISMATCH "Unknown model type"; or what zx_tensors_to_safetensors()
 *         records, which for a model without any tensor is "Invalid arguments".
 *
 * Threads: the model must not be trained during the call.
 */
ZX_API zx_status_t zx_model_to_safetensors(const zx_model_t* model, const char* path);

/**
 * Describes a model as a JSON text file: format, type, name, sizes, number of parameters, and, for
 * an MF model, the shapes of its embedding tables. The name is written without escaping. Writing is
 * not tested, deliberately.
 *
 * @param model  any model.
 * @param path   the file; created or overwritten.
 * @return ZX_OK; else, recorded: ZX_ERR_NULL_POINTER "NULL model or path"; ZX_ERR_FILE_OPEN "Failed
 *         to open file".
 *
 * Threads: the model must not be trained during the call.
 */
ZX_API zx_status_t zx_model_metadata_json(const zx_model_t* model, const char* path);

/**
 * Describes what scoring takes and gives as a JSON text file, the same for every model and every
 * kind of model. Path, results and threads as zx_model_metadata_json(); writing is not tested
 * either.
 */
ZX_API zx_status_t zx_model_to_json_schema(const zx_model_t* model, const char* path);

/** Format of a file. */
typedef uint32_t zx_format_t;

enum {
    ZX_FORMAT_UNKNOWN = 0,     /**< none of these */
    ZX_FORMAT_NATIVE = 1,      /**< model file, ".zxm" */
    ZX_FORMAT_NPY = 2,         /**< NumPy array, ".npy" */
    ZX_FORMAT_SAFETENSORS = 3, /**< safetensors, ".safetensors" */
    ZX_FORMAT_RAW = 4,         /**< floats and nothing else, ".bin" or ".raw" */
    ZX_FORMAT_JSON = 5         /**< JSON text, ".json" */
};

/**
 * Tells a file's format from its name or else from its first eight bytes. A name that ends in an
 * extension of the list above, in lower case, decides without a look at the file, which need not
 * exist. First bytes tell model files, NumPy arrays and, by "{", JSON; safetensors files begin with
 * a number and are told by their name only.
 *
 * @return the format; ZX_FORMAT_UNKNOWN, nothing recorded, if path is null, the file cannot be read
 *         or is shorter than eight bytes, or neither name nor bytes are known.
 *
 * Threads: any.
 */
ZX_API zx_format_t zx_detect_format(const char* path);

/** Returns a format's extension, such as ".npy", or "" for any other value; ".bin" for raw files.
 *  Static text, never null. Threads: any. */
ZX_API const char* zx_format_extension(zx_format_t format);

#ifdef __cplusplus
}
#endif

#endif /* ZORVEX_H */
