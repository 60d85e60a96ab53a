// Remove background: white or subject, the white key's threshold and pockets, the subject's status.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include "ui/Widgets.h"

#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace cutlark::SidebarSections {

QWidget* backgroundRemoval(SidebarControls& c, QWidget* parent, std::function<void()> refine) {
    using Field = CropModel::Field;
    CropModel* model = c.model();
    auto [body, l] = SidebarControls::column(parent);
    auto* mode = c.segmented(
        body, {QObject::tr("White"), QObject::tr("Subject")}, Field::bgRemovalMode,
        [model] { return int(model->bgRemovalMode()); },
        [model](int i) { model->setBgRemovalMode(BGRemovalMode(i)); });
    // Offered only where the subject network is installed.
    c.showWhile(mode, {Field::bgRemovalMode}, [model] { return model->subjectModeOffered(); });
    l->addWidget(mode);
    auto* threshold =
        c.sliderRow(body, QStringLiteral("square"), QStringLiteral("square.dashed"), Field::keyThreshold);
    auto* internal =
        c.checkbox(body, QObject::tr("Include internal areas"),
                   QObject::tr("Also key enclosed white pockets — eye whites, letter counters — not just the "
                               "background around the subject."),
                   Field::keyInternal);
    const auto white = [model] { return model->bgRemovalMode() == BGRemovalMode::white; };
    c.showWhile(threshold, {Field::bgRemovalMode}, white);
    c.showWhile(internal, {Field::bgRemovalMode}, white);
    const SidebarControls::StatusLine status = SidebarControls::statusLine(body);
    c.follow({Field::bgRemovalMode, Field::keyWhiteEnabled, Field::visionComputing, Field::processedImage,
              Field::activeID},
             [model, status] {
                 status.row->setVisible(model->bgRemovalMode() == BGRemovalMode::subject &&
                                        (model->isDetectingSubject() || model->subjectNotFound()));
                 status.spinner->setVisible(model->isDetectingSubject());
                 status.warning->setVisible(!model->isDetectingSubject());
                 status.text->setText(model->isDetectingSubject()
                                          ? QObject::tr("Detecting subject…")
                                          : QObject::tr("No subject found — try White."));
             });
    // The cutout touched up by hand, once there is one.
    auto* refineButton = new QPushButton(symbol(QStringLiteral("paintbrush")), QObject::tr("Refine…"), body);
    refineButton->setToolTip(QObject::tr("Erase or restore parts of the cutout by hand"));
    QObject::connect(refineButton, &QPushButton::clicked, body, refine);
    c.follow({Field::bgRemovalMode, Field::keyWhiteEnabled, Field::visionComputing, Field::activeID},
             [model, refineButton] {
                 refineButton->setVisible(model->bgRemovalMode() == BGRemovalMode::subject &&
                                          model->subjectModeOffered());
                 refineButton->setEnabled(!model->activeCutout().isNull());
             });
    l->addWidget(threshold);
    l->addWidget(internal);
    l->addWidget(status.row);
    l->addWidget(refineButton);
    return c.section(parent, QObject::tr("Remove background"), QStringLiteral("wand.and.stars"),
                     Field::keyWhiteEnabled, body, 150);
}

} // namespace cutlark::SidebarSections
