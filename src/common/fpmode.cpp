// Sets the processor's flush-to-zero and denormals-are-zero modes when the library is loaded.
//
// Embeddings that decay towards zero would otherwise end in denormal numbers, whose arithmetic is
// many times slower. Not every linker sets the modes for a shared library by itself, so the library
// does. They are a thread's own: threads started later inherit them from the one that starts them.

#if defined(__x86_64__)
#include <pmmintrin.h>
#include <xmmintrin.h>
#endif

namespace {

__attribute__((constructor)) void set_flush_to_zero() {
#if defined(__x86_64__)
    _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
    _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
#elif defined(__aarch64__)
    // Bit 24 of FPCR flushes denormal operands and results alike.
    unsigned long fpcr;
    __asm__ volatile("mrs %0, fpcr" : "=r"(fpcr));
    __asm__ volatile("msr fpcr, %0" : : "r"(fpcr | (1UL << 24)));
#endif
}

}  // namespace
