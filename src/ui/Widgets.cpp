#include "ui/Widgets.h"

#include <QDir>
#include <QFrame>
#include <QHash>
#include <QHBoxLayout>
#include <QPainter>

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

QIcon symbol(const QString& name) {
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
    };
    return QIcon::fromTheme(names.value(name, name));
}

QWidget* symbolLabel(const QString& symbolName, const QString& text, QWidget* parent) {
    auto* w = new QWidget(parent);
    auto* row = new QHBoxLayout(w);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(6);
    auto* icon = new QLabel(w);
    icon->setPixmap(symbol(symbolName).pixmap(16, 16));
    row->addWidget(icon);
    auto* label = new QLabel(text, w);
    label->setObjectName(QStringLiteral("text"));
    row->addWidget(label, 1);
    return w;
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
