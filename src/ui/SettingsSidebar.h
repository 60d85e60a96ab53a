#pragma once

#include "model/CropModel.h"

#include <QPointer>
#include <QWidget>

#include <functional>
#include <vector>

class QCheckBox;
class QLabel;
class QProgressBar;
class QPushButton;
class QVBoxLayout;

namespace cutlark {

/// One of the model's parameterless actions (save, export, copy, split).
using ModelAction = void (CropModel::*)();

/// The right-hand column: the title row, the scrolling list of settings, and the foot with the status
/// row and the action buttons. The sections are built in `src/ui/sidebar/`, one file each, over the
/// shared factories of `SidebarControls`; every control writes its model field, and moves, muted, when
/// a field it shows changes.
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
    void refineRequested();
    /// A button asks for one of the model's actions (the view commits any edit first).
    void actionRequested(cutlark::ModelAction action);

private:
    void build();
    /// The title row and the foot.
    void refresh();

    QPointer<CropModel> m_model;
    QCheckBox* m_sync = nullptr;
    QLabel* m_empty = nullptr;
    QWidget* m_settings = nullptr;
    QLabel* m_status = nullptr;
    QProgressBar* m_busy = nullptr;
    QPushButton* m_save = nullptr;
    QPushButton* m_saveAs = nullptr;
    QPushButton* m_export = nullptr;
    QPushButton* m_copy = nullptr;
    class SidebarControls* m_controls = nullptr;
    bool m_refreshing = false;
};

} // namespace cutlark
