#include "ui/ColorPickerPopover.h"

#include "engines/ColorComponents.h"

#include <QFontDatabase>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLinearGradient>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <QTimer>
#include <QToolTip>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace cutlark {

namespace {

constexpr double kPadHeight = 140, kStripHeight = 14, kSpacing = 10, kSwatch = 18, kSwatchGap = 2,
                 kRowGap = 4;

QString hexOf(double r, double g, double b) {
    auto byte = [](double c) { return int(std::round(std::clamp(c, 0.0, 1.0) * 255)); };
    return QString::asprintf("%02X%02X%02X", byte(r), byte(g), byte(b));
}

// HSB of an sRGB triple by the sector rule; red wins ties over green, green over blue.
ColorPickerPopover::HSB hsbOf(double r, double g, double b) {
    const double mx = std::max({r, g, b}), mn = std::min({r, g, b}), d = mx - mn;
    double h = 0;
    if (d > 1e-9) {
        if (mx == r)
            h = std::fmod((g - b) / d, 6.0);
        else if (mx == g)
            h = (b - r) / d + 2;
        else
            h = (r - g) / d + 4;
        h /= 6;
        if (h < 0) h += 1;
    }
    return {h, mx == 0 ? 0 : d / mx, mx};
}

void rgbOf(double hue, double sat, double bri, double& r, double& g, double& b) {
    const double h6 = std::fmod(std::fmod(hue, 1.0) + 1.0, 1.0) * 6;
    const double c = bri * sat, x = c * (1 - std::abs(std::fmod(h6, 2.0) - 1)), m = bri - c;
    const int sector = int(std::floor(h6)) % 6;
    const double table[6][3] = {{c, x, 0}, {x, c, 0}, {0, c, x}, {0, x, c}, {x, 0, c}, {c, 0, x}};
    r = std::clamp(table[sector][0] + m, 0.0, 1.0);
    g = std::clamp(table[sector][1] + m, 0.0, 1.0);
    b = std::clamp(table[sector][2] + m, 0.0, 1.0);
}

QColor hairline() {
    return QColor(0, 0, 0, int(0.15 * 255));
}

void paintThumb(QPainter& p, const QRectF& r, double radius) {
    p.setBrush(Qt::NoBrush);
    p.setPen(QPen(Qt::white, 2));
    p.drawRoundedRect(r, radius, radius);
    p.setPen(QPen(QColor(0, 0, 0, int(0.6 * 255)), 0.5));
    p.drawRoundedRect(r.adjusted(-1, -1, 1, 1), radius + 1, radius + 1);
}

} // namespace

void paintCheckerboardPattern(QPainter& p, const QRectF& r) {
    p.fillRect(r, Qt::white);
    const QColor grey(128, 128, 128, int(0.45 * 255));
    const int cols = int(std::ceil(r.width() / 4)), rows = int(std::ceil(r.height() / 4));
    for (int row = 0; row < rows; ++row)
        for (int col = 0; col < cols; ++col)
            if ((col + row) % 2 == 0) p.fillRect(QRectF(r.left() + col * 4, r.top() + row * 4, 4, 4), grey);
}

const QList<QStringList>& ColorPickerPopover::palette() {
    static const QList<QStringList> rows = {
        QStringLiteral("FF1744 FF6F00 FFC400 FFEA00 C6FF00 00E676 1DE9B6 00E5FF 2979FF 651FFF F50057")
            .split(' '),
        QStringLiteral("EF4444 F97316 F59E0B EAB308 84CC16 22C55E 10B981 06B6D4 3B82F6 8B5CF6 EC4899")
            .split(' '),
        QStringLiteral("FCA5A5 FDBA74 FCD34D FDE68A BEF264 86EFAC 6EE7B7 67E8F9 93C5FD C4B5FD F9A8D4")
            .split(' '),
        QStringLiteral("991B1B 9A3412 92400E 854D0E 3F6212 166534 065F46 155E75 1E40AF 5B21B6 9D174D")
            .split(' '),
        QStringLiteral("FFFFFF F3F4F6 D1D5DB 9CA3AF 6B7280 4B5563 374151 1F2937 111827 000000 CLEAR")
            .split(' '),
    };
    return rows;
}

std::optional<ColorPickerPopover::HSB> ColorPickerPopover::parseHex(const QString& text) {
    const auto v = rgbFromHexField(text);
    if (!v) return std::nullopt;
    return hsbOf(((*v >> 16) & 0xff) / 255.0, ((*v >> 8) & 0xff) / 255.0, (*v & 0xff) / 255.0);
}

QString ColorPickerPopover::percentText(double alpha) {
    return QStringLiteral("%1%").arg(qint64(std::round(alpha * 100)));
}

ColorPickerPopover::ColorPickerPopover(std::function<QColor()> get, std::function<void(const QColor&)> set,
                                       std::function<void(double, double, double, double)> onApplyRGBA,
                                       QWidget* parent)
    : QWidget(parent), m_get(std::move(get)), m_set(std::move(set)), m_onApplyRGBA(std::move(onApplyRGBA)),
      m_hexField(new QLineEdit(this)), m_percent(new QLabel(this)) {
    const double paletteHeight = 5 * kSwatch + 4 * kRowGap;
    const int height = int(kPadHeight + 2 * kStripHeight + paletteHeight + 4 * kSpacing + 22);
    setFixedSize(kWidth + 2 * kEdge, height + 2 * kEdge);
    const QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    auto* hash = new QLabel(QStringLiteral("#"), this);
    hash->setFont(mono);
    m_hexField->setFont(mono);
    m_hexField->setAccessibleName(tr("Hex"));
    m_percent->setFont(mono);
    m_percent->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    m_percent->setFixedWidth(44);
    const int rowTop = kEdge + int(kPadHeight + 2 * kStripHeight + paletteHeight + 4 * kSpacing);
    hash->setGeometry(kEdge, rowTop, 12, 22);
    m_hexField->setGeometry(kEdge + 20, rowTop, kWidth - 20 - 8 - 44, 22);
    m_percent->setGeometry(kEdge + kWidth - 44, rowTop, 44, 22);
    connect(m_hexField, &QLineEdit::returnPressed, this, [this] { commitHex(m_hexField->text()); });
    setFocusPolicy(Qt::StrongFocus);
    setAccessibleName(tr("Colour"));
    describeKeyArea();
    syncFrom(m_get()); // on appearing
}

void ColorPickerPopover::describeKeyArea() {
    static const char* const names[] = {
        QT_TR_NOOP("Saturation and brightness: arrow keys"), QT_TR_NOOP("Hue: left and right arrows"),
        QT_TR_NOOP("Opacity: left and right arrows"), QT_TR_NOOP("Palette: arrow keys, Return to choose")};
    setAccessibleDescription(tr(names[int(m_keyArea)]));
}

bool ColorPickerPopover::focusNextPrevChild(bool next) {
    // Inside the picture, Tab walks its parts before the hex field has its turn.
    // Asked also when the hex field has the focus (a child asks its parent): then it's Qt's turn.
    const bool focused = window()->focusWidget() == this;
    if (focused && next && m_keyArea != KeyArea::palette) {
        m_keyArea = KeyArea(int(m_keyArea) + 1);
    } else if (focused && !next && m_keyArea != KeyArea::pad) {
        m_keyArea = KeyArea(int(m_keyArea) - 1);
    } else {
        return QWidget::focusNextPrevChild(next);
    }
    describeKeyArea();
    update();
    return true;
}

void ColorPickerPopover::keyPressEvent(QKeyEvent* e) {
    const int dx = (e->key() == Qt::Key_Right) - (e->key() == Qt::Key_Left);
    const int dy = (e->key() == Qt::Key_Down) - (e->key() == Qt::Key_Up);
    const bool choose = e->key() == Qt::Key_Return || e->key() == Qt::Key_Enter || e->key() == Qt::Key_Space;
    if (!dx && !dy && !choose) {
        QWidget::keyPressEvent(e);
        return;
    }
    // A step is a hundredth of the range, ten with Shift (a degree of hue, ten with Shift).
    const double step = (e->modifiers() & Qt::ShiftModifier) ? 0.1 : 0.01;
    switch (m_keyArea) {
    case KeyArea::pad:
        setLocal(m_hue, std::clamp(m_sat + dx * step, 0.0, 1.0), std::clamp(m_bri - dy * step, 0.0, 1.0),
                 m_alpha);
        break;
    case KeyArea::hue: {
        const double h = m_hue + (dx - dy) * (step == 0.01 ? 1.0 : 10.0) / 360.0;
        setLocal(std::clamp(h, 0.0, 0.9999), m_sat, m_bri, m_alpha); // short of 1, as a drag stops
        break;
    }
    case KeyArea::alpha:
        setLocal(m_hue, m_sat, m_bri, std::clamp(m_alpha + (dx - dy) * step, 0.0, 1.0));
        break;
    case KeyArea::palette:
        m_paletteCursor =
            QPoint(std::clamp(m_paletteCursor.x() + dx, 0, 10), std::clamp(m_paletteCursor.y() + dy, 0, 4));
        if (choose) pickPalette(m_paletteCursor.y(), m_paletteCursor.x());
        setAccessibleDescription(toolTipAt(swatchRect(m_paletteCursor.y(), m_paletteCursor.x()).center()));
        update();
        break;
    }
    e->accept();
}

QString ColorPickerPopover::toolTipAt(const QPointF& p) const {
    for (int row = 0; row < 5; ++row)
        for (int col = 0; col < 11; ++col)
            if (swatchRect(row, col).contains(p)) {
                const QString entry = palette()[row][col];
                return entry == QLatin1String("CLEAR") ? tr("Clear") : QLatin1Char('#') + entry.toUpper();
            }
    return QString();
}

bool ColorPickerPopover::event(QEvent* e) {
    if (e->type() == QEvent::ToolTip) {
        auto* help = static_cast<QHelpEvent*>(e);
        const QString tip = toolTipAt(help->pos());
        if (tip.isEmpty())
            QToolTip::hideText();
        else
            QToolTip::showText(help->globalPos(), tip, this);
        return true;
    }
    return QWidget::event(e);
}

void ColorPickerPopover::colorChanged() {
    if (!m_suppressInbound) syncFrom(m_get());
}

void ColorPickerPopover::syncFrom(const QColor& color) {
    const auto c = sRGBComponents(color);
    if (!c) return;
    const HSB hsb = hsbOf(c->r, c->g, c->b);
    m_hexText = hexOf(c->r, c->g, c->b);
    setLocal(hsb.hue, hsb.sat, hsb.bri, c->a); // pushOut then finds the binding in agreement
}

void ColorPickerPopover::setLocal(double hue, double sat, double bri, double alpha) {
    m_hue = hue, m_sat = sat, m_bri = bri, m_alpha = alpha;
    pushOut();
}

void ColorPickerPopover::pushOut() {
    m_suppressInbound = true;
    double r, g, b;
    rgbOf(m_hue, m_sat, m_bri, r, g, b);
    const double a = std::clamp(m_alpha, 0.0, 1.0);
    const auto bound = sRGBComponents(m_get());
    const bool same = bound && std::abs(bound->r - r) < 0.004 && std::abs(bound->g - g) < 0.004 &&
                      std::abs(bound->b - b) < 0.004 && std::abs(bound->a - a) < 0.004;
    if (!same) {
        if (m_onApplyRGBA)
            m_onApplyRGBA(r, g, b, a);
        else
            m_set(QColor::fromRgbF(float(r), float(g), float(b), float(a)));
        m_hexText = hexOf(r, g, b);
    }
    // Cleared after the current update, so the notification of our own write still finds it set.
    QTimer::singleShot(0, this, [this] { m_suppressInbound = false; });
    if (!m_hexField->hasFocus()) m_hexField->setText(m_hexText);
    m_percent->setText(percentText(m_alpha));
    update();
}

void ColorPickerPopover::dragPad(double x, double y) {
    const QRectF r = padRect();
    setLocal(m_hue, std::clamp(x / r.width(), 0.0, 1.0), std::clamp(1 - y / r.height(), 0.0, 1.0), m_alpha);
}

void ColorPickerPopover::dragHue(double x) {
    setLocal(std::clamp(x / hueRect().width(), 0.0, 0.9999), m_sat, m_bri, m_alpha);
}

void ColorPickerPopover::dragAlpha(double x) {
    setLocal(m_hue, m_sat, m_bri, std::clamp(x / alphaRect().width(), 0.0, 1.0));
}

void ColorPickerPopover::pickPalette(int row, int column) {
    const QString entry = palette().value(row).value(column);
    if (entry == QLatin1String("CLEAR")) {
        setLocal(m_hue, m_sat, m_bri, 0); // hue, saturation and brightness stay
        return;
    }
    if (const auto hsb = parseHex(entry)) setLocal(hsb->hue, hsb->sat, hsb->bri, 1);
}

void ColorPickerPopover::commitHex(const QString& text) {
    m_hexField->setText(text);
    // An invalid text changes nothing and stays in the field; alpha is never touched here.
    if (const auto hsb = parseHex(text)) setLocal(hsb->hue, hsb->sat, hsb->bri, m_alpha);
}

QRectF ColorPickerPopover::padRect() const {
    return QRectF(kEdge, kEdge, kWidth, kPadHeight);
}
QRectF ColorPickerPopover::hueRect() const {
    return QRectF(kEdge, kEdge + kPadHeight + kSpacing, kWidth, kStripHeight);
}
QRectF ColorPickerPopover::alphaRect() const {
    return QRectF(kEdge, kEdge + kPadHeight + kStripHeight + 2 * kSpacing, kWidth, kStripHeight);
}
QList<QRectF> ColorPickerPopover::thumbRects() const {
    const QRectF pad = padRect(), hue = hueRect(), alpha = alphaRect();
    return {QRectF(pad.left() + m_sat * pad.width() - 7, pad.top() + (1 - m_bri) * pad.height() - 7, 14, 14),
            QRectF(hue.left() + m_hue * hue.width() - 3, hue.center().y() - 9, 6, 18),
            QRectF(alpha.left() + m_alpha * alpha.width() - 3, alpha.center().y() - 9, 6, 18)};
}
QRectF ColorPickerPopover::swatchRect(int row, int column) const {
    const double top = kEdge + kPadHeight + 2 * kStripHeight + 3 * kSpacing;
    const double rowWidth = 11 * kSwatch + 10 * kSwatchGap;
    const double left = kEdge + (kWidth - rowWidth) / 2;
    return QRectF(left + column * (kSwatch + kSwatchGap), top + row * (kSwatch + kRowGap), kSwatch, kSwatch);
}

void ColorPickerPopover::dragAt(const QPointF& p, bool press) {
    if (press) {
        m_dragArea = -1;
        if (padRect().contains(p))
            m_dragArea = 0;
        else if (hueRect().contains(p))
            m_dragArea = 1;
        else if (alphaRect().contains(p))
            m_dragArea = 2;
        else {
            for (int row = 0; row < 5; ++row)
                for (int col = 0; col < 11; ++col)
                    if (swatchRect(row, col).contains(p)) pickPalette(row, col);
        }
    }
    // A drag may leave its area; the clamps hold.
    if (m_dragArea == 0)
        dragPad(p.x() - padRect().left(), p.y() - padRect().top());
    else if (m_dragArea == 1)
        dragHue(p.x() - hueRect().left());
    else if (m_dragArea == 2)
        dragAlpha(p.x() - alphaRect().left());
}

void ColorPickerPopover::mousePressEvent(QMouseEvent* e) {
    dragAt(e->position(), true);
}
void ColorPickerPopover::mouseMoveEvent(QMouseEvent* e) {
    dragAt(e->position(), false);
}

void ColorPickerPopover::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    double r, g, b;
    // The pad: white to the pure hue, under clear to black.
    const QRectF pad = padRect();
    rgbOf(m_hue, 1, 1, r, g, b);
    QPainterPath padShape;
    padShape.addRoundedRect(pad, 6, 6);
    QLinearGradient across(pad.topLeft(), pad.topRight());
    across.setColorAt(0, Qt::white);
    across.setColorAt(1, QColor::fromRgbF(float(r), float(g), float(b)));
    p.fillPath(padShape, across);
    QLinearGradient down(pad.topLeft(), pad.bottomLeft());
    down.setColorAt(0, QColor(0, 0, 0, 0));
    down.setColorAt(1, Qt::black);
    p.fillPath(padShape, down);
    p.setPen(QPen(hairline(), 0.5));
    p.drawPath(padShape);
    const QList<QRectF> thumbs = thumbRects();
    paintThumb(p, thumbs[0], 7);

    // The hue strip.
    const QRectF hue = hueRect();
    QPainterPath hueShape;
    hueShape.addRoundedRect(hue, 7, 7);
    QLinearGradient hues(hue.topLeft(), hue.topRight());
    for (int i = 0; i <= 6; ++i) {
        rgbOf(i / 6.0 >= 1 ? 0.99999 : i / 6.0, 1, 1, r, g, b);
        hues.setColorAt(i / 6.0, QColor::fromRgbF(float(r), float(g), float(b)));
    }
    p.fillPath(hueShape, hues);
    p.setPen(QPen(hairline(), 0.5));
    p.drawPath(hueShape);
    paintThumb(p, thumbs[1], 3);

    // The alpha strip over the checkerboard.
    const QRectF alpha = alphaRect();
    QPainterPath alphaShape;
    alphaShape.addRoundedRect(alpha, 7, 7);
    p.save();
    p.setClipPath(alphaShape);
    paintCheckerboardPattern(p, alpha);
    p.restore();
    rgbOf(m_hue, m_sat, m_bri, r, g, b);
    QLinearGradient fade(alpha.topLeft(), alpha.topRight());
    fade.setColorAt(0, QColor::fromRgbF(float(r), float(g), float(b), 0));
    fade.setColorAt(1, QColor::fromRgbF(float(r), float(g), float(b), 1));
    p.fillPath(alphaShape, fade);
    p.setPen(QPen(hairline(), 0.5));
    p.drawPath(alphaShape);
    paintThumb(p, thumbs[2], 3);

    // The palette.
    for (int row = 0; row < 5; ++row)
        for (int col = 0; col < 11; ++col) {
            const QRectF s = swatchRect(row, col);
            QPainterPath shape;
            shape.addRoundedRect(s, 3, 3);
            const QString entry = palette()[row][col];
            if (entry == QLatin1String("CLEAR")) {
                p.save();
                p.setClipPath(shape);
                paintCheckerboardPattern(p, s);
                p.restore();
                p.setPen(QPen(Qt::red, 1.5));
                p.drawLine(QPointF(s.left() + 1, s.bottom() - 1), QPointF(s.right() - 1, s.top() + 1));
            } else {
                p.fillPath(shape, QColor(QLatin1Char('#') + entry));
            }
            p.setPen(QPen(QColor(0, 0, 0, int(0.18 * 255)), 0.5));
            p.setBrush(Qt::NoBrush);
            p.drawPath(shape);
        }

    // Where the keyboard works, ringed while the picker has the focus.
    if (hasFocus()) {
        const QRectF ring = m_keyArea == KeyArea::pad   ? pad
                            : m_keyArea == KeyArea::hue ? hueRect()
                            : m_keyArea == KeyArea::alpha
                                ? alpha
                                : swatchRect(m_paletteCursor.y(), m_paletteCursor.x());
        p.setPen(QPen(QWidget::palette().color(QPalette::Highlight), 2));
        p.setBrush(Qt::NoBrush);
        p.drawRoundedRect(ring.adjusted(-3, -3, 3, 3), 6, 6);
    }
}

// --- the swatch row ---

ColorSwatchRow::ColorSwatchRow(const QString& label, std::function<QColor()> get,
                               std::function<void(const QColor&)> set, QWidget* parent)
    : QAbstractButton(parent), m_get(std::move(get)), m_set(std::move(set)) {
    setText(label);
    setToolTip(label);
    setCursor(Qt::PointingHandCursor);
    connect(this, &QAbstractButton::clicked, this, [this] {
        // Each opening starts afresh from the bound colour.
        if (m_popover) delete m_popover->parentWidget();
        auto* frame = new QWidget(this, Qt::Popup);
        frame->setAttribute(Qt::WA_DeleteOnClose);
        auto* column = new QVBoxLayout(frame);
        column->setContentsMargins(12, 12, 12, 12);
        m_popover = new ColorPickerPopover(m_get, m_set, {}, frame);
        column->addWidget(m_popover);
        frame->adjustSize();
        const QRect anchor(mapToGlobal(QPoint(0, 0)), size());
        const QRect available =
            screen() ? screen()->availableGeometry() : QRect(anchor.topLeft(), frame->size());
        frame->move(popoverPosition(anchor, frame->size(), available));
        frame->show();
    });
}

QPoint ColorSwatchRow::popoverPosition(const QRect& anchor, const QSize& size, const QRect& screen) {
    constexpr int gap = 6;
    int x = anchor.left() - gap - size.width();
    if (x < screen.left()) x = anchor.right() + 1 + gap; // no room on the left: the right
    int y = anchor.center().y() - size.height() / 2;
    // Pushed in from the right and bottom first, so that a popover bigger than the screen keeps its
    // top-left (the pad and the first rows) in reach.
    x = std::max(screen.left(), std::min(x, screen.right() + 1 - size.width()));
    y = std::max(screen.top(), std::min(y, screen.bottom() + 1 - size.height()));
    return QPoint(x, y);
}

QSize ColorSwatchRow::sizeHint() const {
    return QSize(26 + 9 + fontMetrics().horizontalAdvance(text()) + 4,
                 std::max(24, fontMetrics().height() + 6));
}

void ColorSwatchRow::colorChanged() {
    update();
    if (m_popover) m_popover->colorChanged();
}

void ColorSwatchRow::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF swatch(0, (height() - 20) / 2.0, 26, 20);
    QPainterPath shape;
    shape.addRoundedRect(swatch, 4, 4);
    p.save();
    p.setClipPath(shape);
    paintCheckerboardPattern(p, swatch);
    p.fillRect(swatch, m_get());
    p.restore();
    p.setPen(QPen(QColor(0, 0, 0, int(0.2 * 255)), 0.5));
    p.drawPath(shape);
    p.setPen(palette().color(QPalette::WindowText));
    p.drawText(QRectF(35, 0, width() - 35, height()), Qt::AlignVCenter | Qt::AlignLeft, text());
    if (hasFocus()) {
        p.setPen(QPen(palette().color(QPalette::Highlight), 1.5));
        p.drawRoundedRect(swatch.adjusted(-1, -1, 1, 1), 5, 5);
    }
}

} // namespace cutlark
