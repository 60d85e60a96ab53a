#pragma once

#include "model/CropModel.h"
#include "ui/QtPanels.h"

#include <QPointer>
#include <QWidget>

class QBoxLayout;
class QLabel;
class QStackedWidget;

namespace cutlark {

class ImagePreview;
class QueueDrawer;
class SettingsSidebar;

/// The whole content of the window: the queue column, the header and preview in the middle, and the
/// settings sidebar. Owns the one model for the life of the window; everything shown is worked out
/// from the model's fields.
class ContentView : public QWidget {
    Q_OBJECT

public:
    explicit ContentView(QWidget* parent = nullptr);
    ~ContentView() override;

    CropModel& model() { return m_model; }
    QueueDrawer* queueDrawer() const { return m_queue; }
    SettingsSidebar* sidebar() const { return m_sidebar; }
    ImagePreview* preview() const { return m_preview; }
    /// Whether a drag with files hovers over the window.
    bool isTargeted() const { return m_targeted; }
    /// The header's two texts: the name row and the sizes ("W×H → W×H"), empty without an image.
    QString nameText() const;
    QString dimsText() const;
    /// Whether the header has room for one row, or shows the name over the sizes.
    bool headerIsOneRow() const;
    /// The header itself, for measuring.
    QWidget* header() const { return m_header; }
    /// The crop sheet while it is open.
    class CropEditorSheet* cropEditor() const;
    /// The sheet touching up the active item's cutout, while it is open.
    class RefineSheet* refineSheet() const;
    void openRefineSheet();
    /// Opens the crop sheet on the turned source (nothing without an active item).
    void openCropEditor();
    /// Hands a field being typed in to the model, as Return would: what an action writes is then what
    /// the window shows.
    void commitEditing();
    /// Runs one of the model's actions after committing the field being typed in.
    void perform(void (CropModel::*action)());

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void drainInbox();
    void arrangeHeader();
    /// The sidebar's and the queue's widths for the font and the window.
    void sizeColumns();
    void refresh();
    void setTargeted(bool on);

    CropModel m_model;
    QtPanels m_panels;
    QueueDrawer* m_queue;
    QWidget* m_queueDivider;
    QWidget* m_header;
    QBoxLayout* m_headerLayout = nullptr;
    QLabel* m_name;
    QLabel* m_badge;
    QLabel* m_dims;
    QString m_dimsFull;    ///< "source → result", as rich text
    QString m_dimsCompact; ///< "→ result", for a header too narrow for the whole line
    QStackedWidget* m_region;
    QWidget* m_dropZone;
    ImagePreview* m_preview;
    SettingsSidebar* m_sidebar;
    bool m_targeted = false;
    QStringList m_dropFolders; ///< private folders of dropped image data, removed with the window
    bool m_cropWasEnabled = false;
    QPointer<class CropEditorSheet> m_cropEditor;
    QPointer<class RefineSheet> m_refineSheet;
};

} // namespace cutlark
