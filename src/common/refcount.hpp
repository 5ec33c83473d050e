// Reference counts: plain integers in public records, changed atomically and sequentially
// consistent, so that references may be taken and dropped by several threads.
#pragma once

namespace zx {

template <typename Count>
void add_reference(Count& count) {
    __atomic_fetch_add(&count, Count{1}, __ATOMIC_SEQ_CST);
}

// Whether this call dropped the last reference.
template <typename Count>
[[nodiscard]] bool drop_reference(Count& count) {
    return __atomic_fetch_sub(&count, Count{1}, __ATOMIC_SEQ_CST) == 1;
}

}  // namespace zx
