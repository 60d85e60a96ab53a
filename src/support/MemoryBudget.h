#pragma once

#include <QtGlobal>

#include <functional>
#include <optional>

/// How much memory the program may spend on pixels, and what it spends right now.
///
/// A file's header can claim any size, and what a picture costs is not only its decoded pixels: the
/// pipeline's busiest stage (the sticker outline) needs several times the image again while it runs,
/// every queued item keeps its pixels, and `cutlark-cli --jobs N` works on N pictures at once. So
/// every decoded picture takes a `Hold` on the budget for as long as it lives, and a picture is only
/// admitted when it and its work fit beside what is already held. What doesn't fit is refused as
/// undecodable instead of taking the machine down.
///
/// The budget is three quarters of the memory really available to the process: the smallest of
/// physical memory, the control group's limit (`memory.max`, or `memory.limit_in_bytes` under
/// cgroup v1, on the process's group and every group above it), and the address-space and data-size
/// limits (`ulimit -v`, `ulimit -d`) less what the process already maps. Thread-safe.
namespace cutlark::MemoryBudget {

/// The pipeline's peak need beside the picture it works on, in multiples of that picture's decoded
/// size (the sticker outline: grown canvas, planes and composite).
constexpr qint64 kWorkFactor = 6;

/// Bytes the program may hold in pictures at once; computed on first use.
qint64 limit();

/// Bytes held right now.
qint64 inUse();

/// Replaces the computed limit (tests, and tools that measure); 0 restores it.
void setLimit(qint64 bytes);

/// A share of the budget, given back when the hold goes. Move-only; an empty hold holds nothing.
class Hold {
public:
    Hold() = default;
    Hold(Hold&& other) noexcept;
    Hold& operator=(Hold&& other) noexcept;
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold();

    qint64 bytes() const { return m_bytes; }
    /// Gives back all but `bytes` (never grows the hold).
    void shrinkTo(qint64 bytes);
    void release() { shrinkTo(0); }

private:
    friend std::optional<Hold> tryHold(qint64);
    friend Hold forceHold(qint64);
    friend std::optional<Hold> waitHold(qint64, const std::function<bool()>&);
    explicit Hold(qint64 bytes) : m_bytes(bytes) {}
    qint64 m_bytes = 0;
};

/// Holds `bytes` when they fit beside what is held; absent otherwise. Never waits.
std::optional<Hold> tryHold(qint64 bytes);

/// Holds `bytes` whether they fit or not: for pixels that exist already (a result read back after
/// saving), so that what is held stays honest.
Hold forceHold(qint64 bytes);

/// Holds `bytes`, waiting for other holders to give back enough; absent at once when `bytes` alone
/// exceed the limit, or when `keepWaiting` (asked about every 50 ms) says to stop.
std::optional<Hold> waitHold(qint64 bytes, const std::function<bool()>& keepWaiting = {});

/// True when a picture of `pictureBytes` decoded bytes can be taken in now, its work included.
bool admits(qint64 pictureBytes);

/// What the machine offers before the three quarters are taken; for reports.
qint64 availableBytes();

} // namespace cutlark::MemoryBudget
