#pragma once

#include <QString>
#include <QStringList>

/// Another local user, played by `nobody`, for tests of what the program writes outside the user's
/// files. Needs root (to become someone else) and setpriv; tests skip with the reason otherwise.
namespace cutlark::test::secondUser {

/// Empty when another user can be played here, else why not.
QString unavailableBecause();

/// Runs `/bin/sh -c script` as the other user; its exit code (-1 when it couldn't be run).
int run(const QString& script);

/// Starts `/bin/sh -c script` as the other user in the background; its process id.
qint64 start(const QString& script);

} // namespace cutlark::test::secondUser
