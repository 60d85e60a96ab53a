// The callout that offers to split a collage.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include "ui/Transition.h"
#include "ui/Widgets.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace cutlark::SidebarSections {

void collageCallout(SidebarControls& c, QWidget* parent, QVBoxLayout* rows) {
    CropModel* model = c.model();
    auto [w, l] = SidebarControls::column(parent);
    w->setObjectName(QStringLiteral("collageCallout"));
    w->setStyleSheet(
        QStringLiteral("#collageCallout { background: palette(alternate-base); border-radius: 8px; }"));
    l->setContentsMargins(10, 10, 10, 10);
    l->addWidget(symbolLabel(QStringLiteral("square.grid.2x2"), QObject::tr("Looks like a collage"), w));
    auto* detected = captionLabel(QString(), w);
    auto* split = new QPushButton(w);
    split->setDefault(true);
    split->setToolTip(QObject::tr("Save each detected image as its own file in a folder you choose."));
    QObject::connect(split, &QPushButton::clicked, model, &CropModel::splitCollage);
    l->addWidget(detected);
    l->addWidget(split);
    auto* line = divider(Qt::Horizontal, parent);
    c.follow({CropModel::Field::collageRects}, [model, w, line, detected, split] {
        const qint64 n = model->collageRects().size();
        detected->setText(n == 1 ? QObject::tr("1 image detected.")
                                 : QObject::tr("%1 images detected.").arg(n));
        split->setText(QObject::tr("Split into %1 files").arg(n));
        const bool collage = n >= 2;
        setShown(w, collage, 200, Qt::Vertical);
        line->setVisible(collage);
    });
    rows->addWidget(w);
    rows->addWidget(line);
}

} // namespace cutlark::SidebarSections
