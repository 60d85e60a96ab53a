// Add padding: one amount for every side, or each side on its own.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include "engines/Rounding.h"
#include "ui/Widgets.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSlider>
#include <QVBoxLayout>

namespace cutlark::SidebarSections {

QWidget* padding(SidebarControls& c, QWidget* parent) {
    using Field = CropModel::Field;
    CropModel* model = c.model();
    auto [body, l] = SidebarControls::column(parent);
    auto* uniform =
        c.sliderRow(body, QStringLiteral("square"), QStringLiteral("square.dashed"), Field::padAmount);
    c.showWhile(uniform, {Field::paddingUniform}, [model] { return model->paddingUniform(); });
    l->addWidget(uniform);
    const auto side = [&](const QString& label, Field field, const double& (CropModel::*get)() const) {
        auto* w = new QWidget(body);
        auto* row = new QHBoxLayout(w);
        row->setContentsMargins(0, 0, 0, 0);
        row->setSpacing(8);
        auto* name = captionLabel(label, w);
        name->setFixedWidth(48);
        row->addWidget(name);
        row->addWidget(c.slider(w, field), 1);
        row->addWidget(c.readout(
            w, 30, {field}, [model, get] { return QString::number(roundHalfAwayToInt((model->*get)())); }));
        c.showWhile(w, {Field::paddingUniform}, [model] { return !model->paddingUniform(); });
        l->addWidget(w);
    };
    side(QObject::tr("Top"), Field::padTop, &CropModel::padTop);
    side(QObject::tr("Right"), Field::padRight, &CropModel::padRight);
    side(QObject::tr("Bottom"), Field::padBottom, &CropModel::padBottom);
    side(QObject::tr("Left"), Field::padLeft, &CropModel::padLeft);
    l->addWidget(c.checkbox(body, QObject::tr("Same on all sides"),
                            QObject::tr("Pad every side by the same amount, or set each side on its own."),
                            Field::paddingUniform));
    return c.section(parent, QObject::tr("Add padding"), QStringLiteral("padding"), Field::paddingEnabled,
                     body, 0);
}

} // namespace cutlark::SidebarSections
