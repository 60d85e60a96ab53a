#pragma once

#include <QString>

/// Where Cutlark finds what the set-up fetches beside it (the subject network, its runtime).
namespace cutlark::DataFiles {

/// `overridePath` when it is a file; when it is empty, the first that exists of the user's cache
/// folder (`cutlark/<name>`), beside the running binary, `../share/cutlark/` from it,
/// `/usr/local/share/cutlark/` and `/usr/share/cutlark/`. Empty when none has it.
QString find(const QString& name, const QString& overridePath = QString());

} // namespace cutlark::DataFiles
