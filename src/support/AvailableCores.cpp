#include "support/AvailableCores.h"

#include <QFile>
#include <QString>
#include <QStringList>

#include <sched.h>

#include <algorithm>
#include <cmath>
#include <optional>

namespace cutlark::AvailableCores {

namespace {

QByteArray readSmall(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.read(4096).trimmed() : QByteArray();
}

// The CPU quota of this process's cgroups and their parents, in cores; absent when none sets one.
std::optional<double> cgroupQuota() {
    const QList<QByteArray> lines = readSmall(QStringLiteral("/proc/self/cgroup")).split('\n');
    std::optional<double> quota;
    const auto take = [&](double cores) {
        if (cores > 0) quota = quota ? std::min(*quota, cores) : cores;
    };
    for (const QByteArray& line : lines) {
        const QList<QByteArray> parts = line.split(':');
        if (parts.size() < 3) continue;
        QString path = QString::fromUtf8(parts[2]);
        if (parts[0] == "0" && parts[1].isEmpty()) { // v2: "max 100000" or "200000 100000", any level
            for (;;) {
                const QList<QByteArray> max =
                    readSmall(QStringLiteral("/sys/fs/cgroup") + path + QStringLiteral("/cpu.max"))
                        .split(' ');
                if (max.size() == 2 && max[0] != "max")
                    take(max[0].toDouble() / std::max(1.0, max[1].toDouble()));
                if (path.isEmpty() || path == QLatin1String("/")) break;
                path = path.left(std::max<qsizetype>(0, path.lastIndexOf(QLatin1Char('/'))));
            }
        } else if (parts[1].split(',').contains("cpu")) { // v1
            const QString dir = QStringLiteral("/sys/fs/cgroup/cpu,cpuacct") + path;
            const double q = readSmall(dir + QStringLiteral("/cpu.cfs_quota_us")).toDouble();
            const double p = readSmall(dir + QStringLiteral("/cpu.cfs_period_us")).toDouble();
            if (q > 0 && p > 0) take(q / p);
        }
    }
    return quota;
}

} // namespace

int count() {
    int cores = 1;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) == 0) cores = std::max(1, CPU_COUNT(&set));
    if (const auto quota = cgroupQuota()) cores = std::min(cores, std::max(1, int(std::ceil(*quota))));
    return cores;
}

} // namespace cutlark::AvailableCores
