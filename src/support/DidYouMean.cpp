#include "support/DidYouMean.h"

#include <algorithm>
#include <vector>

namespace cutlark::DidYouMean {

namespace {

// Edits from `a` to `b`, a swap of neighbours counting as one (the commonest slip of the fingers).
int distance(const QString& a, const QString& b) {
    const qsizetype n = a.size(), m = b.size();
    std::vector<std::vector<int>> d(size_t(n + 1), std::vector<int>(size_t(m + 1)));
    for (qsizetype i = 0; i <= n; ++i)
        d[size_t(i)][0] = int(i);
    for (qsizetype j = 0; j <= m; ++j)
        d[0][size_t(j)] = int(j);
    for (qsizetype i = 1; i <= n; ++i) {
        for (qsizetype j = 1; j <= m; ++j) {
            const int cost = a[i - 1] == b[j - 1] ? 0 : 1;
            int best = std::min({d[size_t(i - 1)][size_t(j)] + 1, d[size_t(i)][size_t(j - 1)] + 1,
                                 d[size_t(i - 1)][size_t(j - 1)] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                best = std::min(best, d[size_t(i - 2)][size_t(j - 2)] + 1);
            d[size_t(i)][size_t(j)] = best;
        }
    }
    return d[size_t(n)][size_t(m)];
}

} // namespace

QString closest(const QString& word, const QStringList& candidates) {
    // Long names are only compared up to a length where a slip is still plausible.
    if (word.isEmpty() || word.size() > 64) return {};
    const QString typed = word.toLower();
    QString best;
    int bestDistance = 0;
    for (const QString& candidate : candidates) {
        const int d = distance(typed, candidate.toLower());
        if (best.isEmpty() || d < bestDistance) {
            best = candidate;
            bestDistance = d;
        }
    }
    // About one slip in three letters, at least one: "proces", "--reume", "trimEnabeld".
    const int allowed = std::max<int>(1, int(std::min(typed.size(), best.size()) / 3));
    return bestDistance <= allowed ? best : QString();
}

QString hint(const QString& word, const QStringList& candidates) {
    const QString match = closest(word, candidates);
    return match.isEmpty() ? QString() : QStringLiteral(" (did you mean “%1”?)").arg(match);
}

} // namespace cutlark::DidYouMean
