// Sticker outline: the width of the outline.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include <QVBoxLayout>

namespace cutlark::SidebarSections {

QWidget* sticker(SidebarControls& c, QWidget* parent) {
    using Field = CropModel::Field;
    auto [body, l] = SidebarControls::column(parent);
    l->addWidget(c.sliderRow(body, QStringLiteral("pencil.tip"), QStringLiteral("pencil.tip.crop.circle"),
                             Field::strokeWidth));
    return c.section(parent, QObject::tr("Sticker outline"), QStringLiteral("seal"), Field::stickerEnabled,
                     body, 150);
}

} // namespace cutlark::SidebarSections
