#pragma once

#include "model/Panels.h"

#include <QElapsedTimer>
#include <QPointer>

class QProgressDialog;
class QWidget;

namespace cutlark {

/// The model's file choosers as Qt dialogs over a parent window.
class QtPanels : public Panels {
public:
    explicit QtPanels(QWidget* parent) : m_parent(parent) {}

    std::optional<QStringList> openImages(bool allowMultiple) override;
    std::optional<QString> saveFile(const QString& directory, const QString& proposedName,
                                    const QString& type) override;
    std::optional<QString> openFile(const QString& type) override;
    std::optional<QString> chooseFolder(const QString& directory, const QString& prompt,
                                        const QString& message) override;

    /// A window-modal progress dialog with Cancel, once an open has taken longer than the delay.
    bool openProgress(int done, int total) override;
    void openFinished() override;
    /// How long an open runs before its progress shows; 500 ms unless a test sets it.
    void setProgressDelay(int milliseconds) { m_progressDelayMs = milliseconds; }

    /// "Images (*.png *.jpg …)" for the accepted types.
    static QString imageFilter();

private:
    QWidget* m_parent;
    QElapsedTimer m_openClock;
    QPointer<QProgressDialog> m_progress;
    int m_progressDelayMs = 500;
};

} // namespace cutlark
