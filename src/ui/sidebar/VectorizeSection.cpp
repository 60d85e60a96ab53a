// Vectorize: full colour with its dials, or a silhouette or outline with its stroke; the status.
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

QWidget* vectorize(SidebarControls& c, QWidget* parent) {
    using Field = CropModel::Field;
    CropModel* model = c.model();
    auto [body, l] = SidebarControls::column(parent);
    l->addWidget(
        c.checkbox(body, QObject::tr("Full color"),
                   QObject::tr("Trace every flat colour into its own layer (region growing) instead of one "
                               "silhouette. Best for flat art and illustrations."),
                   Field::vectorFullColor));
    auto* stacked = c.checkbox(body, QObject::tr("No gaps between colors"),
                               QObject::tr("Each color layer also runs under the layers drawn above it, so "
                                           "no background shows through the seams between colors."),
                               Field::vectorStacked);
    c.showWhile(stacked, {Field::vectorFullColor}, [model] { return model->vectorFullColor(); });
    l->addWidget(stacked);
    l->addWidget(c.checkbox(body, QObject::tr("Smooth curves"),
                            QObject::tr("Fit smooth curves to the outlines and keep sharp corners where "
                                        "they really turn, instead of straight-edged polygons."),
                            Field::vectorCurves));
    const auto dial = [&](const QString& label, const QString& icon, Field field,
                          const double& (CropModel::*get)() const) {
        auto [w, dl] = SidebarControls::column(body, 3);
        auto* head = new QWidget(w);
        auto* headRow = new QHBoxLayout(head);
        headRow->setContentsMargins(0, 0, 0, 0);
        headRow->setSpacing(6);
        headRow->addWidget(SidebarControls::tertiarySymbol(icon, head));
        headRow->addWidget(captionLabel(label, head), 1);
        headRow->addWidget(c.readout(head, 30, {field}, [model, get] {
            return QString::number(roundHalfAwayToInt((model->*get)()));
        }));
        dl->addWidget(head);
        dl->addWidget(c.slider(w, field));
        c.showWhile(w, {Field::vectorFullColor}, [model] { return model->vectorFullColor(); });
        l->addWidget(w);
    };
    dial(QObject::tr("Color grouping"), QStringLiteral("circle.dashed"), Field::vectorTolerance,
         &CropModel::vectorTolerance);
    dial(QObject::tr("Denoise"), QStringLiteral("aqi.medium"), Field::vectorDenoise,
         &CropModel::vectorDenoise);
    auto* style = c.segmented(
        body, {QObject::tr("Silhouette"), QObject::tr("Outline")}, Field::vectorizeStyle,
        [model] { return int(model->vectorizeStyle()); },
        [model](int i) { model->setVectorizeStyle(VectorizeStyle(i)); });
    c.showWhile(style, {Field::vectorFullColor}, [model] { return !model->vectorFullColor(); });
    l->addWidget(style);
    auto* stroke =
        c.sliderRow(body, QStringLiteral("minus"), QStringLiteral("lineweight"), Field::vectorStrokeWidth);
    c.showWhile(stroke, {Field::vectorFullColor, Field::vectorizeStyle}, [model] {
        return !model->vectorFullColor() && model->vectorizeStyle() == VectorizeStyle::outline;
    });
    l->addWidget(stroke);
    const SidebarControls::StatusLine status = SidebarControls::statusLine(body);
    c.follow({Field::vectorizeEnabled, Field::vectorFullColor, Field::isVectorizing, Field::vectorTooDetailed,
              Field::vectorTrace, Field::vectorColorTrace},
             [model, status] {
                 const auto text = model->vectorStatusText();
                 status.row->setVisible(model->vectorizeEnabled() && text.has_value());
                 status.spinner->setVisible(model->isVectorizing());
                 status.warning->setVisible(!model->isVectorizing() && model->vectorTooDetailed());
                 if (text) status.text->setText(*text);
             });
    l->addWidget(status.row);
    return c.section(parent, QObject::tr("Vectorize"), QStringLiteral("scribble.variable"),
                     Field::vectorizeEnabled, body, 150);
}

} // namespace cutlark::SidebarSections
