#pragma once

#include <QString>

/// Where Cutlark finds what the set-up fetches beside it (the subject network, its runtime), and
/// whether what it found is what was fetched.
namespace cutlark::DataFiles {

/// `overridePath` when it is a file; when it is empty, the first that exists of the user's cache
/// folder (`cutlark/<name>`), beside the running binary, `../share/cutlark/` from it,
/// `../lib/cutlark/` from it, `/usr/local/share/cutlark/`, `/usr/share/cutlark/`, `/usr/local/lib/cutlark/`
/// and `/usr/lib/cutlark/`. Empty when none has it.
QString find(const QString& name, const QString& overridePath = QString());

/// The SHA-256 (lower-case hex) of the copy of `name` that the set-up fetches and the network
/// package installs; empty for a name it doesn't know.
QString knownDigest(const QString& name);

/// Empty when the file at `path` is the known `name` byte for byte (or `name` has no known
/// digest); else why not, naming the file and how to get it again. The whole file is hashed once
/// per machine and per version of it: a file that passed is remembered by its size, modification
/// time and inode in the user's cache folder. Blocking (about a second for the network); call it
/// off the main thread.
QString damage(const QString& path, const QString& name);

/// How a user of this installation gets the subject network: the package for an installed
/// program, the set-up for a build of the source tree.
QString howToInstall();

} // namespace cutlark::DataFiles
