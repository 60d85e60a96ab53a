#pragma once

#include <QString>

#include <optional>

namespace cutlark {

/// One of N disjoint slices of a batch, the same on every machine without coordination: an input
/// belongs to slice FNV-1a-64(its key, UTF-8) mod N, where the key is its path relative to the
/// folder named on the command line (or its path as given, for a file named directly), so adding
/// inputs never moves the others between slices.
struct Shard {
    int index = 0; ///< K, from 0 (as array-job indexes count)
    int count = 1; ///< N

    bool takes(const QString& key) const;
    /// "K/N" with 0 ≤ K < N ≤ 100000; absent otherwise.
    static std::optional<Shard> parse(const QString& text);
    /// The 64-bit FNV-1a hash of the bytes.
    static quint64 hash(const QByteArray& bytes);
};

} // namespace cutlark
