#include "ui/Widgets.h"

#include <QApplication>
#include <QDir>
#include <QFrame>
#include <QHash>
#include <QHBoxLayout>
#include <QPainter>
#include <QPainterPath>
#include <QStyle>

#include <algorithm>
#include <cmath>

namespace cutlark {

ToggleSwitch::ToggleSwitch(QWidget* parent) : QAbstractButton(parent) {
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::StrongFocus);
}

void ToggleSwitch::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF track = QRectF(rect()).adjusted(1, 2, -1, -2);
    const QColor on = palette().color(QPalette::Highlight);
    const QColor off = palette().color(QPalette::Mid);
    p.setPen(Qt::NoPen);
    p.setBrush(isEnabled() ? (isChecked() ? on : off) : off.lighter(130));
    p.drawRoundedRect(track, track.height() / 2, track.height() / 2);
    const double d = track.height() - 4;
    const double x = isChecked() ? track.right() - 2 - d : track.left() + 2;
    p.setBrush(Qt::white);
    p.drawEllipse(QRectF(x, track.top() + 2, d, d));
    if (hasFocus()) {
        p.setBrush(Qt::NoBrush);
        p.setPen(QPen(on, 1.5));
        p.drawRoundedRect(track.adjusted(-1, -1, 1, 1), track.height() / 2 + 1, track.height() / 2 + 1);
    }
}

void setUpIcons() {
    QStringList paths = QIcon::themeSearchPaths();
    for (const QString& dir : {QDir::homePath() + QStringLiteral("/.local/share/icons"),
                               QStringLiteral("/usr/local/share/icons"), QStringLiteral("/usr/share/icons")})
        if (!paths.contains(dir) && QDir(dir).exists()) paths << dir;
    QIcon::setThemeSearchPaths(paths);
    QIcon::setFallbackThemeName(QStringLiteral("breeze"));
    if (QIcon::themeName().isEmpty() || QIcon::themeName() == QLatin1String("hicolor"))
        QIcon::setThemeName(QStringLiteral("breeze"));
}

namespace {

// Symbols no icon theme says plainly, drawn in the text colour of the window's palette: the ends of
// the sliders and the dials' marks. Drawn at twice the size, so they stay sharp on a scaled screen.
QIcon drawnSymbol(const QString& name) {
    constexpr int kSide = 32;
    QPixmap pixmap(kSide, kSide);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    const QColor ink = QApplication::palette().color(QPalette::WindowText);
    QPen pen(ink, 2.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    QPen dashed = pen;
    dashed.setCapStyle(Qt::FlatCap);
    dashed.setDashPattern({2, 1.6});
    const QRectF box(5, 5, 22, 22);
    if (name == QLatin1String("circle.dashed")) {
        p.setPen(dashed);
        p.drawEllipse(box);
    } else if (name == QLatin1String("circle.dashed.inset.filled")) {
        p.setPen(dashed);
        p.drawEllipse(box);
        p.setPen(Qt::NoPen);
        p.setBrush(ink);
        p.drawEllipse(box.adjusted(6, 6, -6, -6));
    } else if (name == QLatin1String("square")) {
        p.setPen(pen);
        p.drawRoundedRect(box, 3, 3);
    } else if (name == QLatin1String("square.dashed")) {
        p.setPen(dashed);
        p.drawRect(box);
    } else if (name == QLatin1String("pencil.tip") || name == QLatin1String("pencil.tip.crop.circle")) {
        const bool circled = name == QLatin1String("pencil.tip.crop.circle");
        if (circled) {
            p.setPen(pen);
            p.drawEllipse(QRectF(3, 3, 26, 26));
        }
        // A pencil's sharpened end, point down: the wood and the lead.
        const double s = circled ? 0.7 : 1.0, c = 16;
        p.translate(c, c);
        p.scale(s, s);
        p.setPen(Qt::NoPen);
        p.setBrush(ink);
        p.drawPolygon(QPolygonF({QPointF(-9, -10), QPointF(9, -10), QPointF(0, 12)}));
        p.setBrush(Qt::transparent);
        p.setCompositionMode(QPainter::CompositionMode_Clear);
        p.drawRect(QRectF(-10, -4, 20, 2.5));
    } else if (name == QLatin1String("angle")) {
        p.setPen(pen);
        p.drawPolyline(QPolygonF({QPointF(27, 6), QPointF(5, 26), QPointF(28, 26)}));
        p.drawArc(QRectF(-7, 14, 24, 24), 0, 42 * 16);
    } else if (name == QLatin1String("minus")) {
        p.setPen(pen);
        p.drawLine(QPointF(7, 16), QPointF(25, 16));
    } else if (name == QLatin1String("lineweight")) {
        for (int i = 0; i < 3; ++i) {
            p.setPen(QPen(ink, 1.5 + 1.6 * i, Qt::SolidLine, Qt::FlatCap));
            const double y = 8 + i * 8;
            p.drawLine(QPointF(5, y), QPointF(27, y));
        }
    } else if (name == QLatin1String("aqi.medium")) {
        // Three wavy lines: particles in the air, as the noise a median pass takes away.
        p.setPen(pen);
        for (int i = 0; i < 3; ++i) {
            QPainterPath wave;
            const double y = 9 + i * 7;
            wave.moveTo(5, y);
            wave.cubicTo(10, y - 4, 14, y + 4, 19, y);
            wave.cubicTo(22, y - 3, 25, y + 2, 27, y);
            p.drawPath(wave);
        }
    } else {
        return QIcon();
    }
    p.end();
    pixmap.setDevicePixelRatio(2);
    return QIcon(pixmap);
}

bool darkScheme() {
    return QApplication::palette().color(QPalette::Window).lightness() < 128;
}

} // namespace

QIcon symbol(const QString& name) {
    if (const QIcon drawn = drawnSymbol(name); !drawn.isNull()) return drawn;
    // Breeze's glyphs are dark; under a dark scheme its light twin stands in.
    const QString theme = QIcon::themeName();
    if (theme == QLatin1String("breeze") || theme == QLatin1String("breeze-dark")) {
        const QString wanted = darkScheme() ? QStringLiteral("breeze-dark") : QStringLiteral("breeze");
        if (theme != wanted) QIcon::setThemeName(wanted);
    }
    QIcon::setFallbackThemeName(darkScheme() ? QStringLiteral("breeze-dark") : QStringLiteral("breeze"));
    // The window's symbols and the freedesktop names that stand for them.
    static const QHash<QString, QString> names = {
        {QStringLiteral("rotate.right"), QStringLiteral("object-rotate-right")},
        {QStringLiteral("rotate.left"), QStringLiteral("object-rotate-left")},
        {QStringLiteral("flip.horizontal"), QStringLiteral("object-flip-horizontal")},
        {QStringLiteral("flip.vertical"), QStringLiteral("object-flip-vertical")},
        {QStringLiteral("crop"), QStringLiteral("transform-crop")},
        {QStringLiteral("crop.rotate"), QStringLiteral("transform-crop-and-resize")},
        {QStringLiteral("wand.and.stars"), QStringLiteral("tools-wizard")},
        {QStringLiteral("seal"), QStringLiteral("draw-star")},
        {QStringLiteral("padding"), QStringLiteral("transform-scale")},
        {QStringLiteral("square.fill.on.square.fill"), QStringLiteral("fill-color")},
        {QStringLiteral("resize"), QStringLiteral("transform-scale")},
        {QStringLiteral("scribble.variable"), QStringLiteral("draw-bezier-curves")},
        {QStringLiteral("photo"), QStringLiteral("image-x-generic")},
        {QStringLiteral("photo.on.rectangle.angled"), QStringLiteral("insert-image")},
        {QStringLiteral("trash"), QStringLiteral("edit-delete")},
        {QStringLiteral("plus"), QStringLiteral("list-add")},
        {QStringLiteral("exclamationmark.triangle"), QStringLiteral("dialog-warning")},
        {QStringLiteral("checkmark.circle.fill"), QStringLiteral("emblem-success")},
        {QStringLiteral("doc.on.clipboard"), QStringLiteral("edit-copy")},
        {QStringLiteral("arrow.triangle.2.circlepath"), QStringLiteral("view-refresh")},
        {QStringLiteral("square.grid.2x2"), QStringLiteral("view-grid")},
        {QStringLiteral("arrow.right"), QStringLiteral("go-next")},
        {QStringLiteral("paintbrush"), QStringLiteral("draw-brush")},
    };
    return QIcon::fromTheme(names.value(name, name));
}

ElidedLabel::ElidedLabel(const QString& text, Qt::TextElideMode mode, QWidget* parent)
    : QLabel(text, parent), m_mode(mode) {
    setTextFormat(Qt::PlainText);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
}

QSize ElidedLabel::minimumSizeHint() const {
    const QFontMetrics fm(font());
    return QSize(fm.horizontalAdvance(QStringLiteral("Mm…m")), QLabel::minimumSizeHint().height());
}

bool ElidedLabel::isElided() const {
    const QRect r = contentsRect();
    return fontMetrics().horizontalAdvance(text()) > r.width();
}

void ElidedLabel::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const QRect r = contentsRect();
    const QString shown = fontMetrics().elidedText(text(), m_mode, r.width());
    p.setPen(palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, foregroundRole()));
    p.drawText(r, int(alignment()) | Qt::TextSingleLine, shown);
}

ElidedCheckBox::ElidedCheckBox(const QString& text, QWidget* parent)
    : QCheckBox(text, parent), m_full(text) {}

QSize ElidedCheckBox::sizeHint() const {
    QCheckBox probe(m_full);
    probe.setFont(font());
    return probe.sizeHint();
}

QSize ElidedCheckBox::minimumSizeHint() const {
    QCheckBox probe(QStringLiteral("Mm…"));
    probe.setFont(font());
    return probe.sizeHint();
}

void ElidedCheckBox::resizeEvent(QResizeEvent* event) {
    QCheckBox::resizeEvent(event);
    elide();
}

void ElidedCheckBox::elide() {
    // What the label may take: the width less the box and the gap the style puts before the text.
    const int box = style()->pixelMetric(QStyle::PM_IndicatorWidth, nullptr, this) +
                    style()->pixelMetric(QStyle::PM_CheckBoxLabelSpacing, nullptr, this) + 4;
    const QString shown = fontMetrics().elidedText(m_full, Qt::ElideRight, std::max(0, width() - box));
    if (shown != text()) setText(shown);
}

QWidget* symbolLabel(const QString& symbolName, const QString& text, QWidget* parent) {
    auto* w = new QWidget(parent);
    auto* row = new QHBoxLayout(w);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(6);
    auto* icon = new QLabel(w);
    icon->setPixmap(symbol(symbolName).pixmap(16, 16));
    row->addWidget(icon);
    auto* label = new ElidedLabel(text, Qt::ElideRight, w);
    label->setObjectName(QStringLiteral("text"));
    row->addWidget(label, 1);
    return w;
}

namespace {
double relativeLuminance(const QColor& c) {
    const auto linear = [](double v) {
        return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(c.redF()) + 0.7152 * linear(c.greenF()) + 0.0722 * linear(c.blueF());
}
} // namespace

double fontScale(const QFont& font) {
    const double points = font.pointSizeF() > 0 ? font.pointSizeF() : font.pixelSize() * 0.75;
    return std::max(1.0, points / 10.0);
}

double contrastRatio(const QColor& a, const QColor& b) {
    const double x = relativeLuminance(a), y = relativeLuminance(b);
    return (std::max(x, y) + 0.05) / (std::min(x, y) + 0.05);
}

QColor readableAccent(const QPalette& palette) {
    const QColor window = palette.color(QPalette::Window);
    QColor accent = palette.color(QPalette::Highlight);
    const bool dark = relativeLuminance(window) < 0.18;
    // Lightness in steps of 2 % keeps the hue; 50 steps reach white or black, which always read.
    for (int i = 0; i < 50 && contrastRatio(accent, window) < 4.5; ++i) {
        const float h = std::max(0.0f, accent.hslHueF()), s = accent.hslSaturationF(),
                    l = accent.lightnessF();
        accent = QColor::fromHslF(h, s, std::clamp(l + (dark ? 0.02f : -0.02f), 0.0f, 1.0f));
    }
    return accent;
}

QLabel* captionLabel(const QString& text, QWidget* parent) {
    auto* l = new QLabel(text, parent);
    QFont f = l->font();
    f.setPointSizeF(f.pointSizeF() * 0.85);
    l->setFont(f);
    QPalette pal = l->palette();
    pal.setColor(QPalette::WindowText, pal.color(QPalette::PlaceholderText));
    l->setPalette(pal);
    return l;
}

QLabel* secondaryLabel(const QString& text, QWidget* parent) {
    auto* l = new QLabel(text, parent);
    QPalette pal = l->palette();
    pal.setColor(QPalette::WindowText, pal.color(QPalette::PlaceholderText));
    l->setPalette(pal);
    l->setWordWrap(true);
    return l;
}

QWidget* divider(Qt::Orientation orientation, QWidget* parent) {
    auto* line = new QFrame(parent);
    line->setFrameShape(orientation == Qt::Horizontal ? QFrame::HLine : QFrame::VLine);
    line->setFrameShadow(QFrame::Plain);
    line->setStyleSheet(QStringLiteral("color: palette(mid);"));
    return line;
}

} // namespace cutlark
