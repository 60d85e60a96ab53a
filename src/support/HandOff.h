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
/// hand-off"). `received()`, first thing in the body, completes the edge where nothing is copied; the
/// turn it returns passes everything the body wrote on when it ends, and a closure destroyed on
/// another thread than the one that ran it (Qt drops its last reference wherever) receives that
/// before its captures go. Does nothing in a build without ThreadSanitizer.
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
    ~HandOff() { passOn(); }

    /// Holds the body's turn: what it wrote goes with the closure when the turn ends.
    class Turn {
    public:
        Turn() = default;
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        ~Turn() { sent(); }
    };

    /// Everything the sending thread wrote before the hand-off is visible from here on, until the
    /// returned turn ends.
    [[nodiscard]] static Turn received() {
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(&s_token);
#endif
        return {};
    }
    /// Everything this thread wrote so far goes with the next hand-off.
    static void sent() {
#if defined(__SANITIZE_THREAD__)
        __tsan_release(&s_token);
#endif
    }

private:
    static void passOn() {
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(&s_token);
        __tsan_release(&s_token);
#endif
    }
    static inline char s_token = 0;
};

} // namespace cutlark
