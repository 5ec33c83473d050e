// Stands between the library and the system calls that a test wants to steer: the clock, and the
// files under /usr and /opt. Programs that use it wrap these calls at link time.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace zx::test {

struct SystemShim {
    // When set, every path under /usr/ and /opt/ is looked up below this folder instead.
    std::string root;
    // When set, the one path that this process may not read, however the library writes it.
    std::string unreadable;
    // When set, what the clock says.
    std::optional<std::time_t> now;
    // When set, what a file's position is said to be.
    std::optional<long> position;
    // Which seek from now on fails, counted from 1; 0: none.
    int failing_seek = 0;
};

// The process's one shim; everything is passed through until a test says otherwise.
SystemShim& system_shim();

}  // namespace zx::test
