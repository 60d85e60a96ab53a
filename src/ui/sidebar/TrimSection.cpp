// Trim to content: the threshold.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include <QVBoxLayout>

namespace cutlark::SidebarSections {

QWidget* trim(SidebarControls& c, QWidget* parent) {
    using Field = CropModel::Field;
    auto [body, l] = SidebarControls::column(parent);
    l->addWidget(c.sliderRow(body, QStringLiteral("circle.dashed"),
                             QStringLiteral("circle.dashed.inset.filled"), Field::threshold));
    return c.section(parent, QObject::tr("Trim to content"), QStringLiteral("crop"), Field::trimEnabled, body,
                     150);
}

} // namespace cutlark::SidebarSections
