#include "ui/PlainWindow.h"

#include <QAction>
#include <QFileInfo>
#include <QKeySequence>
#include <QLabel>
#include <QMenuBar>
#include <QPixmap>
#include <QStatusBar>

namespace cutlark {

PlainWindow::PlainWindow(CropModel* model, QWidget* parent)
    : QMainWindow(parent), m_model(model), m_panels(this), m_image(new QLabel(this)) {
    m_model->setPanels(&m_panels);
    setWindowTitle(tr("Cutlark"));
    resize(720, 540);
    setMinimumSize(660, 380);
    m_image->setAlignment(Qt::AlignCenter);
    m_image->setMinimumSize(1, 1);
    m_image->setText(tr("Open images with Ctrl+O"));
    setCentralWidget(m_image);

    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(tr("Open…"), QKeySequence::Open, m_model, &CropModel::openPanel);
    file->addAction(tr("Save"), QKeySequence::Save, m_model, &CropModel::saveOverOriginal);
    file->addAction(tr("Save As…"), QKeySequence::SaveAs, m_model, &CropModel::saveAsNewFile);
    file->addSeparator();
    file->addAction(tr("Quit"), QKeySequence::Quit, this, &QWidget::close);

    connect(m_model, &CropModel::changed, this, [this](CropModel::Field field) {
        switch (field) {
        case CropModel::Field::processedImage:
            refreshImage();
            break;
        case CropModel::Field::errorMessage:
        case CropModel::Field::saveConfirmation:
        case CropModel::Field::noticeMessage:
        case CropModel::Field::activeID:
            refreshStatus();
            break;
        default:
            break;
        }
    });
    refreshImage();
    refreshStatus();
}

void PlainWindow::resizeEvent(QResizeEvent* event) {
    QMainWindow::resizeEvent(event);
    refreshImage();
}

void PlainWindow::refreshImage() {
    const QImage& image = m_model->processedImage();
    if (image.isNull()) {
        m_image->setPixmap(QPixmap());
        m_image->setText(tr("Open images with Ctrl+O"));
        return;
    }
    const QSize room = m_image->size();
    const QImage fitted = (image.width() > room.width() || image.height() > room.height())
                              ? image.scaled(room, Qt::KeepAspectRatio, Qt::SmoothTransformation)
                              : image;
    m_image->setPixmap(QPixmap::fromImage(fitted));
}

void PlainWindow::refreshStatus() {
    QString text;
    if (m_model->errorMessage()) text = *m_model->errorMessage();
    else if (m_model->noticeMessage()) text = *m_model->noticeMessage();
    else if (m_model->saveConfirmation()) text = tr("Saved %1").arg(*m_model->saveConfirmation());
    else if (const auto* item = m_model->active()) text = QFileInfo(item->url).fileName();
    statusBar()->showMessage(text);
}

} // namespace cutlark
