// A full disk, as far as one process can have it.
#pragma once

#include <csignal>
#include <cstdlib>
#include <sys/resource.h>

namespace zxtool::test {

// While it lives, no file of this process grows beyond a size: writing fails.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        if (getrlimit(RLIMIT_FSIZE, &before_) != 0) std::abort();
        rlimit limit = before_;
        limit.rlim_cur = bytes;
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) std::abort();
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &before_);
        (void)std::signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    void (*handler_)(int);
    rlimit before_{};
};

}  // namespace zxtool::test
