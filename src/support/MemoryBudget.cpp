#include "support/MemoryBudget.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <limits>
#include <mutex>
#include <string>
#include <utility>

namespace cutlark::MemoryBudget {

namespace {

constexpr qint64 kUnlimited = std::numeric_limits<qint64>::max();

// Never destroyed: a decode that was given up on may end, and give its hold back, after main returns.
struct State {
    std::mutex mutex;
    std::condition_variable released;
    qint64 inUse = 0;
    std::atomic<qint64> forced{0};
};
State& state() {
    static State* const s = new State;
    return *s;
}

// A number from the first line of a small system file; kUnlimited for "max", absent files and junk.
qint64 readLimitFile(const std::string& path) {
    std::ifstream in(path);
    std::string text;
    if (!in || !std::getline(in, text) || text.empty() || text == "max") return kUnlimited;
    try {
        const unsigned long long v = std::stoull(text);
        // cgroup v1 writes "no limit" as a page-rounded LLONG_MAX.
        return v >= (1ull << 62) ? kUnlimited : qint64(v);
    } catch (...) {
        return kUnlimited;
    }
}

// The tightest memory limit of the control group the process is in and of every group above it.
qint64 cgroupLimit() {
    std::ifstream in("/proc/self/cgroup");
    std::string line;
    qint64 best = kUnlimited;
    while (std::getline(in, line)) {
        // "0::/path" (v2) or "N:memory:/path" (v1, possibly among other controllers).
        const size_t a = line.find(':');
        const size_t b = a == std::string::npos ? a : line.find(':', a + 1);
        if (b == std::string::npos) continue;
        const std::string controllers = line.substr(a + 1, b - a - 1);
        std::string path = line.substr(b + 1);
        const bool v2 = controllers.empty();
        const bool v1memory = controllers == "memory" || controllers.find("memory,") != std::string::npos ||
                              controllers.find(",memory") != std::string::npos;
        if (!v2 && !v1memory) continue;
        const std::string root = v2 ? "/sys/fs/cgroup" : "/sys/fs/cgroup/memory";
        const std::string file = v2 ? "/memory.max" : "/memory.limit_in_bytes";
        // Inside a container the mount shows only our own part of the tree, so try the path from
        // the process's group up to the mount's root.
        while (true) {
            best = std::min(best, readLimitFile(root + path + file));
            if (path.empty() || path == "/") break;
            const size_t slash = path.rfind('/');
            path = slash == std::string::npos ? std::string() : path.substr(0, slash);
        }
        best = std::min(best, readLimitFile(root + file));
    }
    return best;
}

// What is mapped now: the part of an address-space limit that is already gone.
qint64 mappedBytes() {
    std::ifstream in("/proc/self/statm");
    long long pages = 0;
    if (!(in >> pages)) return 0;
    return qint64(pages) * sysconf(_SC_PAGESIZE);
}

qint64 rlimitRoom(int resource) {
    rlimit limit{};
    if (getrlimit(resource, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kUnlimited;
    return std::max<qint64>(0, qint64(limit.rlim_cur) - mappedBytes());
}

qint64 physicalBytes() {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    return (pages > 0 && pageSize > 0) ? qint64(pages) * pageSize : qint64(4) << 30;
}

qint64 computedAvailable() {
    static const qint64 available =
        std::min({physicalBytes(), cgroupLimit(), rlimitRoom(RLIMIT_AS), rlimitRoom(RLIMIT_DATA)});
    return available;
}

} // namespace

qint64 availableBytes() {
    return computedAvailable();
}

qint64 limit() {
    if (const qint64 forced = state().forced.load()) return forced;
    // A quarter stays for everything that isn't pixels: code, the network, the decoders' own tables.
    return std::max<qint64>(computedAvailable() / 4 * 3, qint64(64) << 20);
}

void setLimit(qint64 bytes) {
    state().forced = std::max<qint64>(bytes, 0);
    state().released.notify_all();
}

qint64 inUse() {
    const std::lock_guard lock(state().mutex);
    return state().inUse;
}

Hold::Hold(Hold&& other) noexcept : m_bytes(std::exchange(other.m_bytes, 0)) {}

Hold& Hold::operator=(Hold&& other) noexcept {
    if (this != &other) {
        release();
        m_bytes = std::exchange(other.m_bytes, 0);
    }
    return *this;
}

Hold::~Hold() {
    release();
}

void Hold::shrinkTo(qint64 bytes) {
    bytes = std::clamp<qint64>(bytes, 0, m_bytes);
    if (bytes == m_bytes) return;
    {
        const std::lock_guard lock(state().mutex);
        state().inUse -= m_bytes - bytes;
    }
    m_bytes = bytes;
    state().released.notify_all();
}

std::optional<Hold> tryHold(qint64 bytes) {
    bytes = std::max<qint64>(bytes, 0);
    const qint64 cap = limit();
    const std::lock_guard lock(state().mutex);
    if (bytes > cap - state().inUse) return std::nullopt;
    state().inUse += bytes;
    return Hold(bytes);
}

Hold forceHold(qint64 bytes) {
    bytes = std::max<qint64>(bytes, 0);
    const std::lock_guard lock(state().mutex);
    state().inUse += bytes;
    return Hold(bytes);
}

std::optional<Hold> waitHold(qint64 bytes, const std::function<bool()>& keepWaiting) {
    bytes = std::max<qint64>(bytes, 0);
    std::unique_lock lock(state().mutex);
    while (true) {
        const qint64 cap = limit();
        if (bytes > cap) return std::nullopt;
        if (bytes <= cap - state().inUse) {
            state().inUse += bytes;
            return Hold(bytes);
        }
        state().released.wait_for(lock, std::chrono::milliseconds(50));
        if (keepWaiting) {
            lock.unlock();
            const bool go = keepWaiting();
            lock.lock();
            if (!go) return std::nullopt;
        }
    }
}

bool admits(qint64 pictureBytes) {
    if (pictureBytes < 0) return false;
    const qint64 cap = limit();
    if (pictureBytes > cap / (1 + kWorkFactor)) return false;
    return pictureBytes * (1 + kWorkFactor) <= cap - inUse();
}

} // namespace cutlark::MemoryBudget
