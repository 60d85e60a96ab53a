#include "ui/CropEditorSheet.h"

#include "engines/CropEngine.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QVBoxLayout>

#include <cmath>

namespace cutlark {

namespace CropGeometry {

namespace {

// Which edges a handle moves: left, top, right, bottom.
struct Moves {
    bool left, top, right, bottom;
};
Moves movesOf(CropHandle h) {
    switch (h) {
    case CropHandle::nw:
        return {true, true, false, false};
    case CropHandle::n:
        return {false, true, false, false};
    case CropHandle::ne:
        return {false, true, true, false};
    case CropHandle::e:
        return {false, false, true, false};
    case CropHandle::se:
        return {false, false, true, true};
    case CropHandle::s:
        return {false, false, false, true};
    case CropHandle::sw:
        return {true, false, false, true};
    case CropHandle::w:
        return {true, false, false, false};
    case CropHandle::body:
        return {true, true, true, true};
    }
    return {false, false, false, false};
}
} // namespace

QRectF aspectFit(const QSizeF& image, const QSizeF& area) {
    const double a = image.width() / std::max(image.height(), 1.0);
    const double b = area.width() / std::max(area.height(), 1.0);
    if (b < a) {
        const double h = area.width() / a;
        return QRectF(0, (area.height() - h) * 0.5, area.width(), h);
    }
    const double w = area.height() * a;
    return QRectF((area.width() - w) * 0.5, 0, w, area.height());
}

QRectF sanitized(const QRectF& r) {
    const double x = std::max(std::min(r.x(), 1.0), 0.0);
    const double y = std::max(std::min(r.y(), 1.0), 0.0);
    const double w = std::max(std::min(r.width(), 1 - x), kMinimumSize);
    const double h = std::max(std::min(r.height(), 1 - y), kMinimumSize);
    return QRectF(x, y, w, h);
}

QRectF edgeClamp(double left, double top, double right, double bottom) {
    const double x0 = std::max(std::min(left, right - kMinimumSize), 0.0);
    const double y0 = std::max(std::min(top, bottom - kMinimumSize), 0.0);
    const double x1 = std::min(std::max(right, x0 + kMinimumSize), 1.0);
    const double y1 = std::min(std::max(bottom, y0 + kMinimumSize), 1.0);
    return QRectF(x0, y0, x1 - x0, y1 - y0);
}

QPointF point(CropHandle h, const QRectF& r) {
    switch (h) {
    case CropHandle::nw:
        return r.topLeft();
    case CropHandle::n:
        return QPointF(r.center().x(), r.top());
    case CropHandle::ne:
        return r.topRight();
    case CropHandle::e:
        return QPointF(r.right(), r.center().y());
    case CropHandle::se:
        return r.bottomRight();
    case CropHandle::s:
        return QPointF(r.center().x(), r.bottom());
    case CropHandle::sw:
        return r.bottomLeft();
    case CropHandle::w:
        return QPointF(r.left(), r.center().y());
    case CropHandle::body:
        return r.center();
    }
    return r.center();
}

QRectF dragged(const QRectF& base, CropHandle handle, const QPointF& t, const QRectF& imgRect,
               const QSize& pixels) {
    const double dx = t.x() / std::max(imgRect.width(), 1.0), dy = t.y() / std::max(imgRect.height(), 1.0);
    double left = base.left(), top = base.top(), right = base.right(), bottom = base.bottom();
    if (handle == CropHandle::body) {
        left = std::clamp(base.left() + dx, 0.0, 1 - base.width());
        top = std::clamp(base.top() + dy, 0.0, 1 - base.height());
        right = left + base.width();
        bottom = top + base.height();
    } else {
        const Moves m = movesOf(handle);
        if (m.left) left += dx;
        if (m.right) right += dx;
        if (m.top) top += dy;
        if (m.bottom) bottom += dy;
    }
    // Snap to whole pixels; all from the base and the total translation, so nothing adds up.
    const double iw = std::max(pixels.width(), 1), ih = std::max(pixels.height(), 1);
    left = roundHalfAway(left * iw) / iw;
    right = roundHalfAway(right * iw) / iw;
    top = roundHalfAway(top * ih) / ih;
    bottom = roundHalfAway(bottom * ih) / ih;
    return edgeClamp(left, top, right, bottom);
}

QRectF nudged(const QRectF& crop, CropHandle handle, int dx, int dy, int step, const QSize& pixels) {
    const double nx = dx / double(std::max(pixels.width(), 1)) * step;
    const double ny = dy / double(std::max(pixels.height(), 1)) * step;
    double left = crop.left(), top = crop.top(), right = crop.right(), bottom = crop.bottom();
    if (handle == CropHandle::body) {
        left = std::clamp(crop.left() + nx, 0.0, 1 - crop.width());
        top = std::clamp(crop.top() + ny, 0.0, 1 - crop.height());
        right = left + crop.width();
        bottom = top + crop.height();
    } else {
        const Moves m = movesOf(handle);
        if (m.left) left += nx;
        if (m.right) right += nx;
        if (m.top) top += ny;
        if (m.bottom) bottom += ny;
    }
    return edgeClamp(left, top, right, bottom); // the step is a whole pixel: no snapping
}

Loupe loupe(const QPointF& p, const QRectF& img, const QSize& pixels) {
    Loupe l{};
    const double scale = img.width() / std::max(pixels.width(), 1);
    l.zoom = scale < 0.001 ? 10000 : std::max(10 / scale, 3.0);
    const QPointF c(std::clamp(p.x(), img.left(), img.right()), std::clamp(p.y(), img.top(), img.bottom()));
    const double ix = roundHalfAway((c.x() - img.left()) / scale),
                 iy = roundHalfAway((c.y() - img.top()) / scale);
    l.u = std::clamp(ix / std::max(pixels.width(), 1), 0.0, 1.0);
    l.v = std::clamp(iy / std::max(pixels.height(), 1), 0.0, 1.0);
    const double drawW = l.zoom * img.width(), drawH = l.zoom * img.height();
    l.cell = scale * l.zoom;
    l.offX = drawW * (0.5 - l.u);
    l.offY = drawH * (0.5 - l.v);
    // 28 above the point, kept 8 from the image's edges; the upper bound wins.
    const double x = std::min(std::max(p.x(), img.left() + 138), img.right() - 138);
    const double y = std::min(std::max(p.y() - 98, img.top() + 78), img.bottom() - 78);
    l.centre = QPointF(x, y);
    return l;
}

} // namespace CropGeometry

using namespace CropGeometry;

// --- the overlay ---

CropEditorOverlay::CropEditorOverlay(const QImage& image, QWidget* parent) : QWidget(parent), m_image(image) {
    setMinimumSize(700, 480);
    setMouseTracking(false);
}

void CropEditorOverlay::setCrop(const QRectF& crop) {
    m_crop = crop;
    update();
}

void CropEditorOverlay::setSelectedHandle(std::optional<CropHandle> handle) {
    m_selected = handle;
    update();
}

QRectF CropEditorOverlay::imgRect() const {
    // Inset by a selected handle's glow, so that handles on the picture's edges are drawn whole.
    const double inset = kHandleRoom;
    return aspectFit(QSizeF(m_image.size()), QSizeF(width() - 2 * inset, height() - 2 * inset))
        .translated(inset, inset);
}

QRectF CropEditorOverlay::cropRect() const {
    const QRectF r = imgRect();
    return QRectF(r.left() + m_crop.left() * r.width(), r.top() + m_crop.top() * r.height(),
                  m_crop.width() * r.width(), m_crop.height() * r.height());
}

std::optional<CropHandle> CropEditorOverlay::hit(const QPointF& p) const {
    const QRectF r = cropRect();
    // The drawn circle takes the clicks: 16 across when selected, 12 otherwise. Later handles lie on top.
    for (int i = 7; i >= 0; --i) {
        const auto h = CropHandle(i);
        const double radius = (m_selected == h ? 16 : 12) / 2.0;
        const QPointF c = point(h, r);
        if (std::hypot(p.x() - c.x(), p.y() - c.y()) <= radius) return h;
    }
    if (r.contains(p)) return CropHandle::body;
    return std::nullopt;
}

void CropEditorOverlay::nudge(int dx, int dy, bool tenPixels) {
    if (!m_selected) return;
    setCrop(nudged(m_crop, *m_selected, dx, dy, tenPixels ? 10 : 1, m_image.size()));
}

std::optional<QPointF> CropEditorOverlay::loupePoint() const {
    if (m_active && *m_active != CropHandle::body && m_dragLocation) return m_dragLocation;
    if (m_selected && *m_selected != CropHandle::body) return point(*m_selected, cropRect());
    return std::nullopt;
}

void CropEditorOverlay::mousePressEvent(QMouseEvent* e) {
    if (e->button() != Qt::LeftButton) return;
    m_pressed = hit(e->position());
    m_pressAt = e->position();
}

void CropEditorOverlay::mouseMoveEvent(QMouseEvent* e) {
    if (!m_pressed) return;
    const QPointF t = e->position() - m_pressAt;
    // Shorter movements are clicks.
    if (!m_dragBase && std::hypot(t.x(), t.y()) < 10) return;
    if (!m_dragBase) {
        m_dragBase = m_crop;
        m_selected.reset();
    }
    m_active = m_pressed;
    const QRectF r = imgRect();
    const QRectF baseRect(r.left() + m_dragBase->left() * r.width(), r.top() + m_dragBase->top() * r.height(),
                          m_dragBase->width() * r.width(), m_dragBase->height() * r.height());
    m_dragLocation = point(*m_pressed, baseRect) + t;
    setCrop(dragged(*m_dragBase, *m_pressed, t, r, m_image.size()));
}

void CropEditorOverlay::mouseReleaseEvent(QMouseEvent*) {
    if (m_dragBase) {
        // The handle last dragged stays selected, the body included.
        m_selected = m_active;
    } else if (m_pressed && *m_pressed != CropHandle::body) {
        m_selected = m_pressed; // a click on a handle selects it
    } else {
        m_selected.reset(); // a click inside or outside the crop takes the selection away
    }
    m_dragBase.reset();
    m_active.reset();
    m_dragLocation.reset();
    m_pressed.reset();
    update();
}

void CropEditorOverlay::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.fillRect(rect(), palette().color(QPalette::Base));
    const QRectF img = imgRect();
    p.setRenderHint(QPainter::SmoothPixmapTransform, true);
    p.drawImage(img, m_image);
    const QRectF c = cropRect();
    const QColor dim(0, 0, 0, int(0.45 * 255));
    p.fillRect(QRectF(img.left(), img.top(), img.width(), std::max(c.top() - img.top(), 0.0)), dim);
    p.fillRect(QRectF(img.left(), c.bottom(), img.width(), std::max(img.bottom() - c.bottom(), 0.0)), dim);
    p.fillRect(QRectF(img.left(), c.top(), std::max(c.left() - img.left(), 0.0), c.height()), dim);
    p.fillRect(QRectF(c.right(), c.top(), std::max(img.right() - c.right(), 0.0), c.height()), dim);
    p.setRenderHint(QPainter::Antialiasing, true);
    p.setBrush(Qt::NoBrush);
    p.setPen(QPen(QColor(0, 0, 0, int(0.55 * 255)), 2));
    p.drawRect(c.adjusted(1, 1, -1, -1));
    p.setPen(QPen(Qt::white, 1));
    p.drawRect(c.adjusted(0.5, 0.5, -0.5, -0.5));
    const QColor accent = palette().color(QPalette::Highlight);
    for (int i = 0; i < 8; ++i) {
        const auto h = CropHandle(i);
        const bool selected = m_selected == h;
        const double d = selected ? 16 : 12;
        const QPointF at = point(h, c);
        if (selected) {
            QColor glow = accent;
            glow.setAlphaF(0.3f);
            p.setPen(Qt::NoPen);
            p.setBrush(glow);
            p.drawEllipse(at, d / 2 + 3, d / 2 + 3);
        }
        p.setBrush(selected ? accent : QColor(Qt::white));
        p.setPen(QPen(selected ? QColor(Qt::white) : QColor(0, 0, 0, int(0.6 * 255)), selected ? 1.5 : 0.5));
        p.drawEllipse(at, d / 2, d / 2);
    }
    if (const auto at = loupePoint()) paintLoupe(p, *at);
}

void CropEditorOverlay::paintLoupe(QPainter& painter, const QPointF& at) {
    const QRectF img = imgRect();
    const Loupe l = loupe(at, img, m_image.size());
    const double w = 260, h = 140;
    const QRectF box(l.centre.x() - w / 2, l.centre.y() - h / 2, w, h);
    painter.save();
    painter.translate(box.topLeft());
    QPainterPath shape;
    shape.addRoundedRect(QRectF(0, 0, w, h), 8, 8);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, int(0.35 * 255)));
    painter.drawPath(shape.translated(0, 2)); // the shadow
    painter.setClipPath(shape);
    painter.fillRect(QRectF(0, 0, w, h), QColor::fromRgbF(0.22f, 0.22f, 0.22f));
    painter.setPen(QPen(QColor(255, 255, 255, int(0.12 * 255)), 1));
    for (double x = -h; x < w; x += 8)
        painter.drawLine(QPointF(x, 0), QPointF(x + h, h));
    const double drawW = l.zoom * img.width(), drawH = l.zoom * img.height();
    const QRectF target(w / 2 + l.offX - drawW / 2, h / 2 + l.offY - drawH / 2, drawW, drawH);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, false);
    // Only the part that shows is drawn, so a large zoom costs nothing.
    const QRectF visible = target.intersected(QRectF(0, 0, w, h));
    if (!visible.isEmpty()) {
        const QRectF source((visible.left() - target.left()) / target.width() * m_image.width(),
                            (visible.top() - target.top()) / target.height() * m_image.height(),
                            visible.width() / target.width() * m_image.width(),
                            visible.height() / target.height() * m_image.height());
        painter.drawImage(visible, m_image, source);
    }
    if (l.cell >= 4) {
        const double left = std::max(target.left(), 0.0), right = std::min(target.right(), w);
        const double top = std::max(target.top(), 0.0), bottom = std::min(target.bottom(), h);
        if (left < right && top < bottom) {
            auto lines = [&](const QPen& pen) {
                painter.setPen(pen);
                for (double x = w / 2 - std::floor((w / 2) / l.cell) * l.cell; x <= w; x += l.cell)
                    if (x >= left && x <= right) painter.drawLine(QPointF(x, top), QPointF(x, bottom));
                for (double y = h / 2 - std::floor((h / 2) / l.cell) * l.cell; y <= h; y += l.cell)
                    if (y >= top && y <= bottom) painter.drawLine(QPointF(left, y), QPointF(right, y));
            };
            lines(QPen(QColor(0, 0, 0, int(0.7 * 255)), 1));
            lines(QPen(QColor(255, 255, 255, int(0.7 * 255)), 0.5));
        }
    }
    painter.fillRect(QRectF(w / 2, 0, 1, h), Qt::white);
    painter.fillRect(QRectF(w / 2 + 1, 0, 1, h), QColor(0, 0, 0, int(0.55 * 255)));
    painter.fillRect(QRectF(0, h / 2, w, 1), Qt::white);
    painter.fillRect(QRectF(0, h / 2 + 1, w, 1), QColor(0, 0, 0, int(0.55 * 255)));
    painter.setClipping(false);
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(Qt::white, 2));
    painter.drawRoundedRect(QRectF(1, 1, w - 2, h - 2), 8, 8);
    painter.setPen(QPen(QColor(0, 0, 0, int(0.35 * 255)), 1));
    painter.drawRoundedRect(QRectF(1.5, 1.5, w - 3, h - 3), 7, 7);
    painter.restore();
}

// --- the sheet ---

CropEditorSheet::CropEditorSheet(const QImage& image, const QRectF& initialCrop, QWidget* parent)
    : QDialog(parent), m_image(image), m_overlay(new CropEditorOverlay(image, this)) {
    setWindowTitle(tr("Crop"));
    setModal(true);
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(16, 16, 16, 16);
    column->setSpacing(12);
    auto* title = new QLabel(tr("Crop"), this);
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    column->addWidget(title);
    column->addWidget(m_overlay, 1);
    auto* row = new QHBoxLayout;
    auto* autoButton = new QPushButton(symbol(QStringLiteral("wand.and.stars")), tr("Auto"), this);
    autoButton->setToolTip(
        tr("Detect the artwork's bounding box (trimming transparent and near-white borders) and set "
           "the crop to it."));
    autoButton->setAutoDefault(false);
    connect(autoButton, &QPushButton::clicked, this, &CropEditorSheet::runAutoDetect);
    auto* resetButton = new QPushButton(tr("Reset"), this);
    resetButton->setAutoDefault(false);
    connect(resetButton, &QPushButton::clicked, this, &CropEditorSheet::reset);
    auto* cancel = new QPushButton(tr("Cancel"), this);
    cancel->setAutoDefault(false);
    connect(cancel, &QPushButton::clicked, this, &QDialog::reject);
    auto* done = new QPushButton(tr("Done"), this);
    done->setDefault(true); // Return
    connect(done, &QPushButton::clicked, this, &QDialog::accept);
    row->addWidget(autoButton);
    row->addWidget(resetButton);
    row->addStretch();
    row->addWidget(
        captionLabel(tr("Click a handle to select it, then drag or press arrow keys to nudge."), this));
    row->addStretch();
    row->addWidget(cancel);
    row->addWidget(done);
    column->addLayout(row);
    m_overlay->setCrop(sanitized(initialCrop));
    // The arrow keys are seen before anything else in the sheet, and swallowed.
    qApp->installEventFilter(this);
}

QRectF CropEditorSheet::crop() const {
    return m_overlay->crop();
}
std::optional<CropHandle> CropEditorSheet::selectedHandle() const {
    return m_overlay->selectedHandle();
}

void CropEditorSheet::runAutoDetect() {
    const auto buffer = CropEngine::Buffer::make(m_image);
    const auto found = buffer ? CropEngine::contentRect(*buffer, 25) : std::nullopt;
    if (!found) {
        QApplication::beep();
        return;
    }
    const double w = std::max(m_image.width(), 1), h = std::max(m_image.height(), 1);
    m_overlay->setCrop(
        sanitized(QRectF(found->x() / w, found->y() / h, found->width() / w, found->height() / h)));
    m_overlay->setSelectedHandle(std::nullopt);
}

void CropEditorSheet::reset() {
    m_overlay->setCrop(QRectF(0, 0, 1, 1));
    m_overlay->setSelectedHandle(std::nullopt);
}

bool CropEditorSheet::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() != QEvent::KeyPress || !isVisible()) return QDialog::eventFilter(watched, event);
    auto* key = static_cast<QKeyEvent*>(event);
    int dx = 0, dy = 0;
    switch (key->key()) {
    case Qt::Key_Left:
        dx = -1;
        break;
    case Qt::Key_Right:
        dx = 1;
        break;
    case Qt::Key_Down:
        dy = 1;
        break;
    case Qt::Key_Up:
        dy = -1;
        break;
    default:
        return QDialog::eventFilter(watched, event); // Esc and Return reach their buttons
    }
    m_overlay->nudge(dx, dy, (key->modifiers() | QGuiApplication::keyboardModifiers()) & Qt::ShiftModifier);
    return true;
}

} // namespace cutlark
