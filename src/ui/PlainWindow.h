#pragma once

#include "model/CropModel.h"
#include "ui/QtPanels.h"

#include <QMainWindow>

class QLabel;

namespace cutlark {

/// A plain window over the model: the processed image fitted to the window, the status texts below,
/// and the file commands. Holds no document data of its own.
class PlainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit PlainWindow(CropModel* model, QWidget* parent = nullptr);

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void refreshImage();
    void refreshStatus();

    CropModel* m_model;
    QtPanels m_panels;
    QLabel* m_image;
};

} // namespace cutlark
