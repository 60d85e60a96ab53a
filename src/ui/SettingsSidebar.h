#pragma once

#include "model/CropModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <vector>

class QCheckBox;
class QLabel;
class QPushButton;
class QVBoxLayout;

namespace cutlark {

/// The right-hand column: the title row, the scrolling list of settings, and the foot with the status
/// row and the action buttons. Every control writes its model field; `refresh` moves every control
/// to the model's live value with its signals blocked, so a control moved by the model writes nothing.
class SettingsSidebar : public QWidget {
    Q_OBJECT

public:
    explicit SettingsSidebar(CropModel* model, QWidget* parent = nullptr);

    /// The status row's text and whether it is a warning, by first match; empty when nothing shows.
    static QString statusText(const CropModel& model, bool* warning = nullptr);

    /// The primary action's button: "Save Over Original" or, with Vectorize on, "Export SVG".
    QPushButton* primaryButton() const;
    QPushButton* secondaryButton() const;
    /// Runs the primary action if its button is enabled (Ctrl+S).
    void triggerPrimary();

signals:
    void editCropRequested();

private:
    void build();
    void refresh();
    QWidget* section(const QString& title, const QString& icon, const bool& (CropModel::*get)() const,
                     void (CropModel::*set)(const bool&), QWidget* body, int transitionMs);

    QPointer<CropModel> m_model;
    QCheckBox* m_sync = nullptr;
    QLabel* m_empty = nullptr;
    QWidget* m_settings = nullptr;
    QLabel* m_status = nullptr;
    QPushButton* m_save = nullptr;
    QPushButton* m_saveAs = nullptr;
    QPushButton* m_export = nullptr;
    QPushButton* m_copy = nullptr;
    std::vector<std::function<void()>> m_refreshers; // each moves one control to its field
    bool m_refreshing = false;
};

} // namespace cutlark
