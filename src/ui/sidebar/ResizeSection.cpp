// Resize: width and height in pixels, the aspect lock, and canvas instead of scaling.
#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"

#include "ui/Widgets.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QVBoxLayout>

namespace cutlark::SidebarSections {

QWidget* resize(SidebarControls& c, QWidget* parent) {
    using Field = CropModel::Field;
    CropModel* model = c.model();
    auto [body, l] = SidebarControls::column(parent);
    auto* sizes = new QWidget(body);
    auto* sizesRow = new QHBoxLayout(sizes);
    sizesRow->setContentsMargins(0, 0, 0, 0);
    sizesRow->setSpacing(6);
    // A number in the user's locale; text that doesn't parse goes back to the field's value.
    const auto pixelField = [&](Field field, const double& (CropModel::*get)() const,
                                void (CropModel::*set)(const double&)) {
        auto* edit = new QLineEdit(sizes);
        edit->setObjectName(QStringLiteral("pixelField"));
        edit->setAccessibleName(SidebarControls::spokenName(field));
        edit->setFixedWidth(64);
        edit->setAlignment(Qt::AlignRight);
        // Only what the person is typing is left alone: a field that has the focus and no edit of
        // its own (Tab just moved there) shows the value the other field's link gave it.
        const auto show = [model, edit, get] {
            if (!edit->hasFocus() || !edit->isModified())
                edit->setText(QLocale().toString((model->*get)(), 'f', 0));
        };
        QObject::connect(edit, &QLineEdit::editingFinished, edit, [&c, model, edit, set, show] {
            bool ok = false;
            const double v = QLocale().toDouble(edit->text(), &ok);
            // Text the person didn't touch is no value of theirs: Return there writes nothing back.
            const bool typed = edit->isModified();
            edit->setModified(false);
            if (ok && typed && !c.following())
                (model->*set)(v);
            else
                show();
        });
        c.follow({field}, show);
        return edit;
    };
    sizesRow->addWidget(pixelField(Field::resizeWidth, &CropModel::resizeWidth, &CropModel::setResizeWidth));
    sizesRow->addWidget(new QLabel(QStringLiteral("×"), sizes));
    sizesRow->addWidget(
        pixelField(Field::resizeHeight, &CropModel::resizeHeight, &CropModel::setResizeHeight));
    sizesRow->addWidget(captionLabel(QObject::tr("px"), sizes));
    sizesRow->addStretch();
    l->addWidget(sizes);
    l->addWidget(
        c.checkbox(body, QObject::tr("Lock aspect ratio"),
                   QObject::tr("Keep the source proportion; off stretches to exactly the entered size."),
                   Field::resizeLockAspect));
    l->addWidget(
        c.checkbox(body, QObject::tr("Canvas size"),
                   QObject::tr("Change the canvas to width × height without scaling — the image is centered, "
                               "padded with transparency where larger and cropped where smaller."),
                   Field::resizeCanvas));
    return c.section(parent, QObject::tr("Resize"), QStringLiteral("resize"), Field::resizeEnabled, body,
                     150);
}

} // namespace cutlark::SidebarSections
