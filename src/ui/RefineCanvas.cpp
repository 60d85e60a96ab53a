#include "ui/RefineCanvas.h"

#include "ui/CropEditorSheet.h"

#include <QApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace cutlark {

namespace {

constexpr double kLargestZoom = 32;

QImage small(const QImage& image, const QSize& size) {
    const QImage rgba = image.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
    return rgba.size() == size ? rgba : rgba.scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
}

// Source-normalised to turned-normalised, as the pipeline turns: the mirror first, then the turns.
QTransform orientation(int turns, bool mirrored) {
    QTransform t;
    if (mirrored) t = QTransform(-1, 0, 0, 1, 1, 0);
    for (int i = 0; i < ((turns % 4) + 4) % 4; ++i)
        t = t * QTransform(0, 1, -1, 0, 1, 0); // (x, y) → (1 − y, x)
    return t;
}

} // namespace

RefineCanvas::RefineCanvas(const QImage& source, const QImage& cutout, int quarterTurns, bool mirrored,
                           QWidget* parent)
    : QWidget(parent), m_turns(quarterTurns), m_mirrored(mirrored) {
    const double k = std::min(1.0, double(kPreviewSide) / std::max({source.width(), source.height(), 1}));
    const QSize size(std::max(1, int(std::lround(source.width() * k))),
                     std::max(1, int(std::lround(source.height() * k))));
    m_source = small(source, size);
    m_cutout = small(cutout, size);
    m_committed = m_cutout;
    m_view = m_cutout;
    m_cover = QImage(size, QImage::Format_Grayscale8);
    m_cover.fill(0);
    m_dimmed = m_source.copy();
    for (int y = 0; y < m_dimmed.height(); ++y) { // a quarter of the photograph's strength
        uchar* p = m_dimmed.scanLine(y);
        for (int x = 0; x < 4 * m_dimmed.width(); ++x)
            p[x] = uchar(p[x] / 4);
    }
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(240, 180);
    setCursor(Qt::BlankCursor); // the brush's circle is the cursor
    setAccessibleName(tr("Cutout to refine"));
}

void RefineCanvas::setEdits(const MaskEdits& edits) {
    m_committed = MaskEditing::apply(m_cutout, m_source, edits);
    if (m_committed.isNull()) m_committed = m_cutout;
    m_view = m_committed;
    update();
}

void RefineCanvas::setTool(MaskEdit::Kind kind, double size, double softness) {
    m_kind = kind;
    m_size = std::clamp(size, MaskEditing::kSmallestSize, MaskEditing::kLargestSize);
    m_softness = std::clamp(softness, 0.0, 1.0);
    update();
}

QSizeF RefineCanvas::orientedSize() const {
    const QSizeF s = m_source.size();
    return m_turns % 2 ? s.transposed() : s;
}

QRectF RefineCanvas::imageRect() const {
    const QRectF area = QRectF(rect()).adjusted(8, 8, -8, -8);
    const QRectF fitted = CropGeometry::aspectFit(orientedSize(), area.size());
    const QSizeF size = fitted.size() * m_zoom;
    const QPointF centre = area.center() + m_pan;
    return QRectF(centre.x() - size.width() / 2, centre.y() - size.height() / 2, size.width(), size.height());
}

QPointF RefineCanvas::toOriented(const QPointF& p) const {
    const QRectF r = imageRect();
    return QPointF((p.x() - r.left()) / r.width(), (p.y() - r.top()) / r.height());
}

QTransform RefineCanvas::previewToWidget() const {
    const QRectF r = imageRect();
    return QTransform::fromScale(1.0 / m_source.width(), 1.0 / m_source.height()) *
           orientation(m_turns, m_mirrored) * QTransform::fromScale(r.width(), r.height()) *
           QTransform::fromTranslate(r.left(), r.top());
}

void RefineCanvas::zoomAbout(double zoom, const QPointF& at) {
    const double z = std::clamp(zoom, 1.0, kLargestZoom);
    // The point under `at` stays under it.
    const QPointF centre = QRectF(rect()).center() + m_pan;
    m_pan += (at - centre) * (1 - z / m_zoom);
    m_zoom = z;
    clampPan();
    update();
}

void RefineCanvas::fit() {
    m_zoom = 1;
    m_pan = QPointF();
    update();
}

void RefineCanvas::clampPan() {
    // The picture may be pushed no further than to its edge.
    const QRectF r = imageRect();
    const double maxX = std::max(0.0, (r.width() - width()) / 2 + 8);
    const double maxY = std::max(0.0, (r.height() - height()) / 2 + 8);
    m_pan = QPointF(std::clamp(m_pan.x(), -maxX, maxX), std::clamp(m_pan.y(), -maxY, maxY));
}

void RefineCanvas::beginStroke(const QPointF& oriented) {
    MaskEdit e;
    e.kind = m_kind;
    e.size = m_size;
    e.softness = m_softness;
    e.points << MaskEditing::toSource(oriented, m_turns, m_mirrored);
    if (m_kind == MaskEdit::Kind::dropIsland) {
        m_committed = MaskEditing::apply(m_committed, m_source, {e});
        m_view = m_committed;
        update();
        emit strokeFinished(e);
        return;
    }
    m_stroke = e;
    extendStroke(oriented);
}

void RefineCanvas::extendStroke(const QPointF& oriented) {
    if (!m_stroke) return;
    const QPointF p = MaskEditing::toSource(oriented, m_turns, m_mirrored);
    // Only the newest segment is laid and blended: a stroke's segment costs its own box.
    MaskEdit segment = *m_stroke;
    segment.points = {m_stroke->points.last(), p};
    if (m_stroke->points.size() > 1 || p != m_stroke->points.last()) m_stroke->points << p;
    const QRect box = MaskEditing::paintBrush(m_cover, segment);
    if (box.isEmpty()) return;
    if (m_view.cacheKey() == m_committed.cacheKey()) m_view = m_committed.copy();
    MaskEditing::blendBox(m_view, m_committed, m_source, m_cover, box, m_kind);
    update(previewToWidget().mapRect(QRectF(box)).toAlignedRect().adjusted(-2, -2, 2, 2));
}

void RefineCanvas::endStroke() {
    if (!m_stroke) return;
    const MaskEdit done = *m_stroke;
    m_stroke.reset();
    m_committed = m_view;
    m_cover.fill(0);
    emit strokeFinished(done);
}

void RefineCanvas::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.fillRect(rect(), palette().window());
    const QRectF r = imageRect();
    paintChecker(p, r);
    p.setRenderHint(QPainter::SmoothPixmapTransform,
                    m_zoom * r.width() / std::max(1.0, orientedSize().width()) < 2);
    p.setTransform(previewToWidget());
    p.setOpacity(0.5);
    p.drawImage(0, 0, m_dimmed);
    p.setOpacity(1);
    p.drawImage(0, 0, m_view);
    p.resetTransform();
    // The brush: its rim, and its hard core when it has a soft edge.
    if (m_cursor && m_kind != MaskEdit::Kind::dropIsland) {
        const double radius = m_size * std::max(r.width(), r.height()) / 2;
        p.setRenderHint(QPainter::Antialiasing);
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(QColor(0, 0, 0, 160), 3));
        p.drawEllipse(*m_cursor, radius, radius);
        p.setPen(QPen(m_kind == MaskEdit::Kind::erase ? QColor(255, 90, 90) : QColor(90, 220, 120), 1.5));
        p.drawEllipse(*m_cursor, radius, radius);
        if (m_softness > 0.05) {
            p.setPen(QPen(QColor(255, 255, 255, 160), 1, Qt::DashLine));
            const double core = radius * (1 - m_softness);
            p.drawEllipse(*m_cursor, core, core);
        }
    } else if (m_cursor) {
        p.setPen(QPen(palette().text().color(), 1.5));
        p.drawLine(*m_cursor - QPointF(8, 0), *m_cursor + QPointF(8, 0));
        p.drawLine(*m_cursor - QPointF(0, 8), *m_cursor + QPointF(0, 8));
    }
    if (m_stroke && m_cursor) paintLoupe(p);
}

void RefineCanvas::paintChecker(QPainter& p, const QRectF& r) const {
    // The checkerboard behind: what is transparent reads as such.
    p.save();
    p.setClipRect(r, Qt::IntersectClip);
    const int cell = 8;
    const QColor light(0xEE, 0xEE, 0xEE), dark(0xCC, 0xCC, 0xCC);
    for (int y = int(std::floor(r.top())); y < r.bottom(); y += cell)
        for (int x = int(std::floor(r.left())); x < r.right(); x += cell)
            p.fillRect(x, y, cell, cell,
                       ((x - int(r.left())) / cell + (y - int(r.top())) / cell) % 2 ? dark : light);
    p.restore();
}

QRectF RefineCanvas::loupeBox() const {
    if (!m_cursor) return QRectF();
    const double w = 220, h = 132;
    // Above the pointer, out of the brush's way; below it near the top edge.
    double y = m_cursor->y() - 40 - h;
    if (y < 4) y = m_cursor->y() + 40;
    const double x = std::clamp(m_cursor->x() - w / 2, 4.0, std::max(4.0, width() - w - 4));
    return QRectF(x, y, w, h);
}

void RefineCanvas::paintLoupe(QPainter& p) {
    const QRectF box = loupeBox();
    constexpr double kMagnify = 4;
    p.save();
    QPainterPath shape;
    shape.addRoundedRect(box, 8, 8);
    p.setClipPath(shape);
    p.fillRect(box, palette().window());
    // The work area four times larger about the pointer, the pointer at the box's centre.
    const QTransform zoomed = QTransform::fromTranslate(-m_cursor->x(), -m_cursor->y()) *
                              QTransform::fromScale(kMagnify, kMagnify) *
                              QTransform::fromTranslate(box.center().x(), box.center().y());
    p.setTransform(zoomed);
    paintChecker(p, imageRect());
    p.setTransform(previewToWidget() * zoomed);
    p.setRenderHint(QPainter::SmoothPixmapTransform, false);
    p.setOpacity(0.5);
    p.drawImage(0, 0, m_dimmed);
    p.setOpacity(1);
    p.drawImage(0, 0, m_view);
    p.resetTransform();
    const double radius = kMagnify * m_size * std::max(imageRect().width(), imageRect().height()) / 2;
    p.setRenderHint(QPainter::Antialiasing);
    p.setBrush(Qt::NoBrush);
    p.setPen(QPen(m_kind == MaskEdit::Kind::erase ? QColor(255, 90, 90) : QColor(90, 220, 120), 1.5));
    p.drawEllipse(box.center(), radius, radius);
    p.setClipping(false);
    p.setPen(QPen(palette().mid().color(), 1));
    p.drawRoundedRect(box.adjusted(0.5, 0.5, -0.5, -0.5), 8, 8);
    p.restore();
}

void RefineCanvas::mousePressEvent(QMouseEvent* e) {
    const bool pan =
        e->button() == Qt::MiddleButton ||
        (e->button() == Qt::LeftButton && QApplication::queryKeyboardModifiers() & Qt::AltModifier);
    if (pan) {
        m_panFrom = e->position();
        setCursor(Qt::ClosedHandCursor);
        return;
    }
    if (e->button() == Qt::LeftButton) beginStroke(toOriented(e->position()));
}

void RefineCanvas::mouseMoveEvent(QMouseEvent* e) {
    const QPointF at = e->position();
    if (m_panFrom) {
        m_pan += at - *m_panFrom;
        m_panFrom = at;
        clampPan();
        update();
        return;
    }
    const std::optional<QPointF> was = m_cursor;
    const QRectF loupeWas = m_stroke ? loupeBox() : QRectF();
    m_cursor = at;
    if (m_stroke) {
        extendStroke(toOriented(at));
        update(loupeWas.toAlignedRect()
                   .adjusted(-2, -2, 2, 2)
                   .united(loupeBox().toAlignedRect().adjusted(-2, -2, 2, 2)));
    }
    // The brush's circle, where it was and where it is.
    const double radius = m_size * std::max(imageRect().width(), imageRect().height()) / 2 + 4;
    for (const auto& c : {was, m_cursor})
        if (c)
            update(QRectF(*c - QPointF(radius + 8, radius + 8), QSizeF(2 * radius + 16, 2 * radius + 16))
                       .toAlignedRect());
}

void RefineCanvas::mouseReleaseEvent(QMouseEvent* e) {
    if (m_panFrom && (e->button() == Qt::MiddleButton || e->button() == Qt::LeftButton)) {
        m_panFrom.reset();
        setCursor(Qt::BlankCursor);
        return;
    }
    if (e->button() == Qt::LeftButton) {
        const QRectF loupe = loupeBox();
        endStroke();
        update(loupe.toAlignedRect().adjusted(-2, -2, 2, 2)); // the loupe goes with the stroke
    }
}

void RefineCanvas::wheelEvent(QWheelEvent* e) {
    const double steps = e->angleDelta().y() / 120.0;
    zoomAbout(m_zoom * std::pow(1.25, steps), e->position());
}

void RefineCanvas::leaveEvent(QEvent*) {
    m_cursor.reset();
    update();
}

} // namespace cutlark
