#pragma once

#include "model/CropModel.h"

#include <QPointer>
#include <QVariantAnimation>
#include <QWidget>

namespace cutlark {

/// The current result of the active image, fitted into the preview region on a checkerboard, with a
/// dashed border and its pixel size on a badge. It springs in when another image comes up and springs
/// to its new rectangle when the result changes size. Reads the model; stores only its motion.
class ImagePreview : public QWidget {
    Q_OBJECT

public:
    explicit ImagePreview(CropModel* model, QWidget* parent = nullptr);

    /// The image of `imageW` × `imageH` pixels scaled to fit `size`, centred; enlarged when smaller.
    /// The zero rectangle for an empty image or an empty area.
    static QRectF fittedRect(qint64 imageW, qint64 imageH, const QSizeF& size);

    /// Where the picture is drawn now (mid-spring while the size changes), and its reveal state.
    QRectF shownRect() const { return m_shownRect; }
    /// The room between the widget's edges and the picture: the badge across the picture's top edge
    /// and the region's margin live there, so nothing of them is cut.
    static constexpr int kInset = 28;
    /// Where the size badge is drawn; empty without a picture.
    QRectF badgeRect() const;
    QString badgeText(const QImage& image) const;
    bool revealed() const { return m_revealed; }
    double revealProgress() const { return m_revealProgress; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    QFont badgeFont() const;
    void modelChanged();
    void retarget(bool animate);
    void triggerReveal();

    QPointer<CropModel> m_model;
    QString m_revealKey;
    bool m_revealed = false;
    double m_revealProgress = 0; // 0 → scale 0.96 and transparent, 1 → in place
    QRectF m_shownRect;
    QRectF m_targetRect;
    QVariantAnimation m_revealAnimation;
    QVariantAnimation m_rectAnimation;
};

} // namespace cutlark
