#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace cutlark {

/// The file choosers the model asks the user through. The window answers with dialogs; tests and the
/// command line answer from a script. Every method returns nothing when the user cancels.
class Panels {
public:
    virtual ~Panels() = default;

    /// Choose image files of the accepted types (one or several), no folders.
    virtual std::optional<QStringList> openImages(bool allowMultiple) = 0;

    /// Choose where to save a file of `type` (a MIME type), proposing `proposedName` in `directory`.
    virtual std::optional<QString> saveFile(const QString& directory, const QString& proposedName,
                                            const QString& type) = 0;

    /// Choose one existing file of `type` (a MIME type).
    virtual std::optional<QString> openFile(const QString& type) = 0;

    /// Choose one folder, starting in `directory`; folders may be created on the way.
    virtual std::optional<QString> chooseFolder(const QString& directory, const QString& prompt,
                                                const QString& message) = 0;

    /// Called on the opening thread while the files of one `open` decode: first with `done` = 0, then
    /// every few tens of milliseconds, last with `done` = `total` unless cancelled. Returning false
    /// cancels the open: nothing of it is added. The default shows nothing and never cancels.
    virtual bool openProgress(int done, int total) {
        (void)done;
        (void)total;
        return true;
    }
    /// Called once after the last `openProgress` of an open, finished or cancelled.
    virtual void openFinished() {}
};

} // namespace cutlark
