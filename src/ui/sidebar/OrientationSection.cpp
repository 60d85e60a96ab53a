// Rotate & flip: the reset and the four turning buttons.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include "ui/Widgets.h"

#include <QHBoxLayout>
#include <QToolButton>
#include <QVBoxLayout>

namespace cutlark::SidebarSections {

QWidget* orientation(SidebarControls& c, QWidget* parent) {
    using Field = CropModel::Field;
    CropModel* model = c.model();
    auto [w, l] = SidebarControls::column(parent);
    auto* head = new QWidget(w);
    auto* headRow = new QHBoxLayout(head);
    headRow->setContentsMargins(0, 0, 0, 0);
    headRow->addWidget(symbolLabel(QStringLiteral("rotate.right"), QObject::tr("Rotate & flip"), head), 1);
    auto* reset = new QToolButton(head);
    reset->setText(QObject::tr("Reset"));
    reset->setAutoRaise(true);
    QObject::connect(reset, &QToolButton::clicked, model, [model] {
        model->setQuarterTurns(0);
        model->setMirrored(false);
    });
    c.showWhile(reset, {Field::quarterTurns, Field::mirrored},
                [model] { return model->quarterTurns() != 0 || model->mirrored(); });
    headRow->addWidget(reset);
    l->addWidget(head);
    auto* buttons = new QWidget(w);
    auto* buttonRow = new QHBoxLayout(buttons);
    buttonRow->setContentsMargins(0, 0, 0, 0);
    buttonRow->setSpacing(6);
    const auto orient = [&](const QString& icon, const QString& tip, std::function<void()> action) {
        auto* b = new QToolButton(buttons);
        b->setIcon(symbol(icon));
        b->setToolTip(tip);
        b->setAccessibleName(tip);
        b->setMinimumSize(30, 26);
        QObject::connect(b, &QToolButton::clicked, model, action);
        buttonRow->addWidget(b);
    };
    orient(QStringLiteral("rotate.right"), QObject::tr("Rotate right"),
           [model] { model->setQuarterTurns((model->quarterTurns() + 1) % 4); });
    orient(QStringLiteral("rotate.left"), QObject::tr("Rotate left"),
           [model] { model->setQuarterTurns((model->quarterTurns() + 3) % 4); });
    buttonRow->addWidget(divider(Qt::Vertical, buttons));
    orient(QStringLiteral("flip.horizontal"), QObject::tr("Flip horizontal"),
           [model] { model->flipHorizontal(); });
    orient(QStringLiteral("flip.vertical"), QObject::tr("Flip vertical"), [model] { model->flipVertical(); });
    buttonRow->addStretch();
    l->addWidget(buttons);
    return w;
}

} // namespace cutlark::SidebarSections
