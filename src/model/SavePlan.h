#pragma once

#include <QString>

/// Where a result goes and in what type, for the window's saves and the command line alike: the
/// save rules (the source's own type, PNG when it can't hold the result's transparency) or a type
/// asked for, the name a new file takes, and the file a save over the original writes.
namespace cutlark::SavePlan {

struct Choice {
    QString type;           ///< the MIME type written (before `ImageFile::writableType`)
    bool forcedPng = false; ///< transparency forced PNG on a source type without alpha
    bool asked = false;     ///< the type was asked for by name (the command line's --format)
};

/// The save rules for a result of a source of `sourceType`: its own type, or PNG when the result
/// is `transparent` and the type can't hold alpha.
Choice byRules(const QString& sourceType, bool transparent);

/// The type asked for by name, whatever the source was.
Choice asked(const QString& type);

/// The extension a result of `sourcePath` takes: the asked type's usual one; "png" when forced;
/// else the source's own, or its type's usual one, or "png".
QString extension(const QString& sourcePath, const Choice& choice);

/// The file name (no folder) of a new result: "<stem>-out.<ext>", or "<stem>-out-<number>.<ext>"
/// from 2 on. The stem is the source's name less its last extension.
QString newFileName(const QString& sourcePath, const Choice& choice, int number = 1);
/// The same name with the extension given.
QString numberedName(const QString& sourcePath, int number, const QString& extension);

/// The file a save over the original writes: the source itself, unless PNG was forced or another
/// type asked for, which go beside it under the same stem with their own extension.
QString overOriginal(const QString& sourcePath, const Choice& choice);

} // namespace cutlark::SavePlan
