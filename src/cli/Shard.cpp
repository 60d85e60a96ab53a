#include "cli/Shard.h"

#include <QStringList>

namespace cutlark {

quint64 Shard::hash(const QByteArray& bytes) {
    quint64 h = 14695981039346656037ull; // FNV-1a's offset basis and prime, 64 bits
    for (const char c : bytes) {
        h ^= quint64(uchar(c));
        h *= 1099511628211ull;
    }
    return h;
}

bool Shard::takes(const QString& key) const {
    return count <= 1 || hash(key.toUtf8()) % quint64(count) == quint64(index);
}

std::optional<Shard> Shard::parse(const QString& text) {
    const QStringList parts = text.split(QLatin1Char('/'));
    if (parts.size() != 2) return std::nullopt;
    bool okIndex = false, okCount = false;
    const int index = parts[0].toInt(&okIndex), count = parts[1].toInt(&okCount);
    // toInt takes "+1"; a slice number is plain digits.
    for (const QString& p : parts)
        for (const QChar c : p)
            if (!c.isDigit()) return std::nullopt;
    if (!okIndex || !okCount || count < 1 || count > 100000 || index < 0 || index >= count)
        return std::nullopt;
    return Shard{index, count};
}

} // namespace cutlark
