#include "signals.hpp"

#include "error.hpp"

#include <array>
#include <csignal>
#include <cstddef>

namespace zxtool {
namespace {

constexpr std::array kSignals{SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t g_interrupted = 0;
std::array<struct sigaction, kSignals.size()> g_previous;

extern "C" void note_interrupt(int /*signal*/) {
    g_interrupted = 1;
}

}  // namespace

InterruptGuard::InterruptGuard() {
    struct sigaction action = {};
    action.sa_handler = note_interrupt;
    // Without SA_RESTART, so that a read that waits for input comes back and the reader notices.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        sigaction(kSignals[i], nullptr, &g_previous[i]);
        // A signal that whoever started the program wants ignored stays ignored, as under nohup.
        if (g_previous[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &action, nullptr);
    }
}

InterruptGuard::~InterruptGuard() {
    for (std::size_t i = 0; i < kSignals.size(); ++i)
        sigaction(kSignals[i], &g_previous[i], nullptr);
}

bool interrupted() {
    return g_interrupted != 0;
}

void stop_if_interrupted() {
    if (interrupted()) throw Error(Exit::kInterrupted, "interrupted");
}

}  // namespace zxtool
