#pragma once

#include <QString>

namespace cutlark::NaturalOrder {

/// File-name order as people expect it: letters without regard to case, runs of digits by their
/// value ("image2" before "image10", "a01" equal in rank to "a1" but placed before it).
/// Negative, zero or positive like `strcmp`.
int compare(const QString& a, const QString& b);

} // namespace cutlark::NaturalOrder
