#pragma once

#include <QCollatorSortKey>
#include <QString>

namespace cutlark::NaturalOrder {

/// File-name order as people expect it: letters as the user's language orders them ("été" before
/// "f") without regard to case, runs of digits by their value ("image2" before "image10", "a01"
/// equal in rank to "a1" but placed before it).
/// Negative, zero or positive like `strcmp`.
int compare(const QString& a, const QString& b);

/// A name's place in `compare`'s order, worked out once: many names sort by their keys in the same
/// order as by `compare`, at a fraction of its cost (100 000 file names: each compared ~17 times).
struct Key {
    QCollatorSortKey collation;
    QString name;
};
Key key(const QString& name);
int compare(const Key& a, const Key& b);

/// The tie-break under `compare`: case-folded code units, digit runs by value, fewer leading zeros
/// first. Zero for names that differ only in case.
int codeUnitCompare(const QString& a, const QString& b);

} // namespace cutlark::NaturalOrder
