#pragma once

#include <QString>
#include <QStringList>

namespace cutlark::DidYouMean {

/// The candidate a mistyped `word` most likely meant: the nearest by edits (a letter added, left
/// out, changed or two swapped, case aside), when it is near enough to be a slip rather than
/// another word; empty when none is.
QString closest(const QString& word, const QStringList& candidates);

/// " (did you mean “X”?)" for the closest candidate, or empty: for the end of an error text.
QString hint(const QString& word, const QStringList& candidates);

} // namespace cutlark::DidYouMean
