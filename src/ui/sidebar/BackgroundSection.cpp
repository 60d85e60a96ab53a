// Add background: a colour, a gradient with its angle, or a picture.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include "ui/ColorPickerPopover.h"
#include "ui/Widgets.h"

#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>

namespace cutlark::SidebarSections {

QWidget* background(SidebarControls& c, QWidget* parent) {
    using Field = CropModel::Field;
    CropModel* model = c.model();
    auto [body, l] = SidebarControls::column(parent);
    l->addWidget(c.segmented(
        body, {QObject::tr("Color"), QObject::tr("Gradient"), QObject::tr("Image")}, Field::backgroundKind,
        [model] { return int(model->backgroundKind()); },
        [model](int i) { model->setBackgroundKind(BackgroundKind(i)); }));
    const auto swatch = [&](QWidget* owner, const QString& label, Field field,
                            const QColor& (CropModel::*get)() const, void (CropModel::*set)(const QColor&)) {
        auto* row = new ColorSwatchRow(
            label, [model, get] { return (model->*get)(); },
            [model, set](const QColor& colour) { (model->*set)(colour); }, owner);
        c.follow({field}, [row] { row->colorChanged(); });
        return row;
    };
    const auto kindIs = [model](BackgroundKind kind) {
        return [model, kind] { return model->backgroundKind() == kind; };
    };

    auto* colour = swatch(body, QObject::tr("Background color"), Field::backgroundColor,
                          &CropModel::backgroundColor, &CropModel::setBackgroundColor);
    c.showWhile(colour, {Field::backgroundKind}, kindIs(BackgroundKind::color));
    l->addWidget(colour);

    auto* ends = new QWidget(body);
    auto* endsRow = new QHBoxLayout(ends);
    endsRow->setContentsMargins(0, 0, 0, 0);
    endsRow->setSpacing(12);
    endsRow->addWidget(swatch(ends, QObject::tr("From"), Field::gradientStart, &CropModel::gradientStart,
                              &CropModel::setGradientStart));
    endsRow->addWidget(swatch(ends, QObject::tr("To"), Field::gradientEnd, &CropModel::gradientEnd,
                              &CropModel::setGradientEnd));
    auto* angle = new QWidget(body);
    auto* angleRow = new QHBoxLayout(angle);
    angleRow->setContentsMargins(0, 0, 0, 0);
    angleRow->setSpacing(8);
    angleRow->addWidget(SidebarControls::tertiarySymbol(QStringLiteral("angle"), angle));
    angleRow->addWidget(c.slider(angle, Field::gradientAngle), 1);
    // The angle's fraction is cut off, not rounded: just under 360 shows 359°.
    angleRow->addWidget(c.readout(angle, 34, {Field::gradientAngle}, [model] {
        return QStringLiteral("%1°").arg(qint64(std::trunc(model->gradientAngle())));
    }));
    c.showWhile(ends, {Field::backgroundKind}, kindIs(BackgroundKind::gradient));
    c.showWhile(angle, {Field::backgroundKind}, kindIs(BackgroundKind::gradient));
    l->addWidget(ends);
    l->addWidget(angle);

    auto* choose = new QPushButton(symbol(QStringLiteral("photo")), QObject::tr("Choose Image…"), body);
    QObject::connect(choose, &QPushButton::clicked, model, &CropModel::chooseBackgroundImage);
    auto* picture = new QWidget(body);
    auto* pictureRow = new QHBoxLayout(picture);
    pictureRow->setContentsMargins(0, 0, 0, 0);
    pictureRow->setSpacing(9);
    auto* thumb = new QLabel(picture);
    auto* name = new QLabel(picture);
    auto* change = new QToolButton(picture);
    change->setIcon(symbol(QStringLiteral("arrow.triangle.2.circlepath")));
    change->setToolTip(QObject::tr("Choose a different image"));
    change->setAutoRaise(true);
    QObject::connect(change, &QToolButton::clicked, model, &CropModel::chooseBackgroundImage);
    auto* clear = new QToolButton(picture);
    clear->setIcon(symbol(QStringLiteral("trash")));
    clear->setToolTip(QObject::tr("Remove background image"));
    clear->setAutoRaise(true);
    QObject::connect(clear, &QToolButton::clicked, model, &CropModel::clearBackgroundImage);
    pictureRow->addWidget(thumb);
    pictureRow->addWidget(name, 1);
    pictureRow->addWidget(change);
    pictureRow->addWidget(clear);
    c.follow({Field::backgroundKind, Field::backgroundImage, Field::backgroundImageURL},
             [model, choose, picture, thumb, name] {
                 const bool isImage = model->backgroundKind() == BackgroundKind::image;
                 const bool has =
                     !model->backgroundImage().isNull() && !model->backgroundImageURL().isEmpty();
                 choose->setVisible(isImage && !has);
                 picture->setVisible(isImage && has);
                 if (has) {
                     thumb->setPixmap(QPixmap::fromImage(
                         model->backgroundImage()
                             .scaled(34, 26, Qt::KeepAspectRatioByExpanding, Qt::SmoothTransformation)
                             .copy(0, 0, 34, 26)));
                     name->setText(QFontMetrics(name->font())
                                       .elidedText(QFileInfo(model->backgroundImageURL()).fileName(),
                                                   Qt::ElideMiddle, 120));
                 }
             });
    l->addWidget(choose);
    l->addWidget(picture);
    return c.section(parent, QObject::tr("Add background"), QStringLiteral("square.fill.on.square.fill"),
                     Field::backgroundEnabled, body, 0);
}

} // namespace cutlark::SidebarSections
