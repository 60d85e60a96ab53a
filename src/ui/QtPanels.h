#pragma once

#include "model/Panels.h"

class QWidget;

namespace cutlark {

/// The model's file choosers as Qt dialogs over a parent window.
class QtPanels : public Panels {
public:
    explicit QtPanels(QWidget* parent) : m_parent(parent) {}

    std::optional<QStringList> openImages(bool allowMultiple) override;
    std::optional<QString> saveFile(const QString& directory, const QString& proposedName,
                                    const QString& type) override;
    std::optional<QString> chooseFolder(const QString& directory, const QString& prompt,
                                        const QString& message) override;

    /// "Images (*.png *.jpg …)" for the accepted types.
    static QString imageFilter();

private:
    QWidget* m_parent;
};

} // namespace cutlark
