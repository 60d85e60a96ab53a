// Crop: the switch, and the button back into the crop editor.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include "ui/Widgets.h"

#include <QPushButton>
#include <QVBoxLayout>

namespace cutlark::SidebarSections {

QWidget* crop(SidebarControls& c, QWidget* parent, std::function<void()> editCrop) {
    using Field = CropModel::Field;
    CropModel* model = c.model();
    auto [body, l] = SidebarControls::column(parent);
    auto* edit = new QPushButton(symbol(QStringLiteral("crop")), QObject::tr("Edit Crop…"), body);
    QObject::connect(edit, &QPushButton::clicked, body, editCrop);
    c.follow({Field::activeID, Field::items},
             [model, edit] { edit->setEnabled(model->active() != nullptr); });
    l->addWidget(edit);
    return c.section(parent, QObject::tr("Crop"), QStringLiteral("crop.rotate"), Field::manualCropEnabled,
                     body, 0);
}

} // namespace cutlark::SidebarSections
