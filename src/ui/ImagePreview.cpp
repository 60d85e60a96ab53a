#include "ui/ImagePreview.h"

#include "ui/Spring.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QTimer>

#include <cmath>

namespace cutlark {

namespace {

// The checkerboard behind transparent results: 16-point squares, drawn as a whole at 0.6. One fill
// with a tile, not a rectangle per square: a drag repaints it at every step.
void paintCheckerboard(QPainter& p, const QRectF& r) {
    static const QPixmap tile = [] {
        QPixmap t(32, 32);
        t.fill(QColor::fromRgbF(0.92f, 0.92f, 0.92f));
        QPainter tp(&t);
        const QColor dark = QColor::fromRgbF(0.82f, 0.82f, 0.82f);
        tp.fillRect(0, 0, 16, 16, dark);
        tp.fillRect(16, 16, 16, 16, dark);
        return t;
    }();
    p.save();
    p.setClipRect(r);
    p.setOpacity(p.opacity() * 0.6);
    p.setBrushOrigin(r.topLeft());
    p.fillRect(r, QBrush(tile));
    p.restore();
}

} // namespace

ImagePreview::ImagePreview(CropModel* model, QWidget* parent) : QWidget(parent), m_model(model) {
    setAttribute(Qt::WA_OpaquePaintEvent, false);
    setMinimumSize(1, 1);
    m_revealAnimation.setStartValue(0.0);
    m_revealAnimation.setEndValue(1.0);
    m_revealAnimation.setDuration(Spring::reveal().durationMs);
    m_revealAnimation.setEasingCurve(Spring::reveal().curve());
    connect(&m_revealAnimation, &QVariantAnimation::valueChanged, this, [this](const QVariant& v) {
        m_revealProgress = v.toDouble();
        update();
    });
    m_rectAnimation.setDuration(Spring::rectangle().durationMs);
    m_rectAnimation.setEasingCurve(Spring::rectangle().curve());
    connect(&m_rectAnimation, &QVariantAnimation::valueChanged, this, [this](const QVariant& v) {
        m_shownRect = v.toRectF();
        update();
    });
    connect(model, &CropModel::changed, this, [this](CropModel::Field f) {
        if (f == CropModel::Field::processedImage || f == CropModel::Field::vectorPreview ||
            f == CropModel::Field::vectorizeEnabled || f == CropModel::Field::activeID ||
            f == CropModel::Field::items)
            modelChanged();
    });
    modelChanged();
}

QRectF ImagePreview::fittedRect(qint64 imageW, qint64 imageH, const QSizeF& size) {
    if (imageW < 1 || imageH < 1 || size.width() <= 0 || size.height() <= 0) return QRectF();
    const double scale = std::min(size.width() / double(imageW), size.height() / double(imageH));
    const double w = double(imageW) * scale, h = double(imageH) * scale;
    return QRectF((size.width() - w) / 2, (size.height() - h) / 2, w, h);
}

void ImagePreview::modelChanged() {
    if (!m_model) return;
    const QImage image = m_model->vectorDisplayImage();
    const QString key = m_model->revealKey();
    const bool keyChanged = key != m_revealKey;
    m_revealKey = key;
    retarget(!keyChanged);
    // A new image (or the first one) comes in from 0.96 and transparent.
    if (!image.isNull() && (keyChanged || (m_revealProgress == 0 && !m_revealed))) triggerReveal();
    update();
}

void ImagePreview::retarget(bool animate) {
    const QImage image = m_model ? m_model->vectorDisplayImage() : QImage();
    const QRectF area = QRectF(rect()).adjusted(kInset, kInset, -kInset, -kInset);
    const QRectF target =
        image.isNull() ? QRectF()
                       : fittedRect(image.width(), image.height(), area.size()).translated(area.topLeft());
    if (target == m_targetRect) return;
    const bool sizeChanged = target.size() != m_targetRect.size();
    m_targetRect = target;
    // Only a change of size springs; a picture with nothing shown yet, or a new image, lands at once.
    if (animate && sizeChanged && !m_shownRect.isEmpty() && !target.isEmpty()) {
        m_rectAnimation.stop();
        m_rectAnimation.setStartValue(m_shownRect);
        m_rectAnimation.setEndValue(target);
        m_rectAnimation.start();
    } else {
        m_rectAnimation.stop();
        m_shownRect = target;
    }
}

void ImagePreview::triggerReveal() {
    // Out at once, then in, queued so that the picture is laid out small and clear first.
    m_revealed = false;
    m_revealAnimation.stop();
    m_revealProgress = 0;
    QTimer::singleShot(0, this, [this] {
        m_revealed = true;
        m_revealAnimation.start();
    });
}

void ImagePreview::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    retarget(true);
}

void ImagePreview::paintEvent(QPaintEvent*) {
    if (!m_model) return;
    const QImage image = m_model->vectorDisplayImage();
    if (image.isNull() || m_shownRect.isEmpty()) return;
    QPainter p(this);
    p.setRenderHint(QPainter::SmoothPixmapTransform, true);
    p.setRenderHint(QPainter::Antialiasing, true);
    const QRectF r = m_shownRect;
    const double scale = 0.96 + 0.04 * m_revealProgress;
    p.setOpacity(std::clamp(m_revealProgress, 0.0, 1.0));
    p.translate(r.center());
    p.scale(scale, scale);
    p.translate(-r.center());

    paintCheckerboard(p, r);
    p.drawImage(r, image);
    QPen dashed(palette().color(QPalette::Highlight));
    dashed.setWidthF(1);
    dashed.setDashPattern({5, 4});
    QColor accent = dashed.color();
    accent.setAlphaF(0.9f);
    dashed.setColor(accent);
    p.setPen(dashed);
    p.setBrush(Qt::NoBrush);
    p.drawRect(r.adjusted(0.5, 0.5, -0.5, -0.5));

    // The size badge, across the top edge.
    p.setFont(badgeFont());
    const QRectF badge = badgeRect();
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0, 0, 0, int(0.55 * 255)));
    p.drawRoundedRect(badge, badge.height() / 2, badge.height() / 2);
    p.setPen(Qt::white);
    p.drawText(badge, Qt::AlignCenter, badgeText(image));
}

QString ImagePreview::badgeText(const QImage& image) const {
    // A draft shown during a drag says the size the result will have, not its own.
    const QSize size = m_model && image.cacheKey() == m_model->processedImage().cacheKey()
                           ? m_model->resultSize()
                           : image.size();
    return tr("%1 × %2 px").arg(size.width()).arg(size.height());
}

QFont ImagePreview::badgeFont() const {
    QFont f = font();
    f.setPointSizeF(f.pointSizeF() * 0.85);
    f.setStyleHint(QFont::Monospace);
    return f;
}

QRectF ImagePreview::badgeRect() const {
    const QImage image = m_model ? m_model->vectorDisplayImage() : QImage();
    if (image.isNull() || m_shownRect.isEmpty()) return QRectF();
    const QFontMetricsF fm(badgeFont());
    const QSizeF badge(fm.horizontalAdvance(badgeText(image)) + 14, fm.height() + 4);
    const QRectF& r = m_shownRect;
    return QRectF(r.center().x() - badge.width() / 2, std::max(0.0, r.top() - 11), badge.width(),
                  badge.height());
}

} // namespace cutlark
