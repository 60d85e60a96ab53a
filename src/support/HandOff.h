#pragma once

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace cutlark {

/// Marks a hand-off of data to another thread through Qt's thread pool or a queued call, whose locks
/// live inside libQt6Core where ThreadSanitizer can't see them. A lambda that goes to another thread
/// captures one first and one last: whenever the closure is made, copied or moved (Qt moves it again
/// on the worker), the first one's copy comes before any other capture is read ("what the sender
/// wrote is visible"), and the last one's after every capture is written ("all of this goes with the
/// hand-off"). `received()`, first thing in the body, completes the edge where nothing is copied.
/// Does nothing in a build without ThreadSanitizer.
class HandOff {
public:
    HandOff() { passOn(); }
    HandOff(const HandOff&) { passOn(); }
    HandOff(HandOff&&) noexcept { passOn(); }
    HandOff& operator=(const HandOff&) {
        passOn();
        return *this;
    }
    HandOff& operator=(HandOff&&) noexcept {
        passOn();
        return *this;
    }
    ~HandOff() = default;

    /// Everything the sending thread wrote before the hand-off is visible from here on.
    static void received() {
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(&s_token);
#endif
    }
    /// Everything this thread wrote so far goes with the next hand-off.
    static void sent() {
#if defined(__SANITIZE_THREAD__)
        __tsan_release(&s_token);
#endif
    }

private:
    static void passOn() {
        received();
        sent();
    }
    static inline char s_token = 0;
};

} // namespace cutlark
