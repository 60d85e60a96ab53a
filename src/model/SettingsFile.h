#pragma once

#include "model/Settings.h"

#include <QString>

#include <optional>

/// Settings kept in a file: the JSON object of setting names and values that `cutlark-cli --preset`
/// reads and `cutlark-cli settings` prints, so that a look built in the window runs on a server.
namespace cutlark::SettingsFile {

/// The preset's text for `settings`: every setting by name but the background picture itself, which
/// comes back through its file (`backgroundImageURL`).
QByteArray toJson(const Settings& settings);

/// Writes `settings` to `path` (atomically); an error naming the file when it can't be written.
std::optional<QString> write(const Settings& settings, const QString& path);

/// The defaults with what the preset at `path` says, as the command line reads it; absent with
/// `error` naming the file (and, for JSON that doesn't parse, the line and column) when it isn't one.
std::optional<Settings> read(const QString& path, QString* error);

} // namespace cutlark::SettingsFile
