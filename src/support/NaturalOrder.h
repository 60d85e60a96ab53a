#pragma once

#include <QString>

namespace cutlark::NaturalOrder {

/// File-name order as people expect it: letters as the user's language orders them ("été" before
/// "f") without regard to case, runs of digits by their value ("image2" before "image10", "a01"
/// equal in rank to "a1" but placed before it).
/// Negative, zero or positive like `strcmp`.
int compare(const QString& a, const QString& b);

/// The tie-break under `compare`: case-folded code units, digit runs by value, fewer leading zeros
/// first. Zero for names that differ only in case.
int codeUnitCompare(const QString& a, const QString& b);

} // namespace cutlark::NaturalOrder
