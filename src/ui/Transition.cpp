#include "ui/Transition.h"

#include <QPropertyAnimation>
#include <QWidget>

namespace cutlark {

namespace {
const char* kRunning = "cutlarkTransition";
const char* kTarget = "cutlarkTransitionShown";
} // namespace

void setShown(QWidget* widget, bool shown, int ms, Qt::Orientation orientation) {
    if (!widget) return;
    const bool animating = widget->property(kRunning).toBool();
    // Already where it is asked to be (or going there): nothing to do.
    if (animating ? widget->property(kTarget).toBool() == shown
                  : widget->isVisibleTo(widget->parentWidget()) == shown)
        return;
    const QByteArray property = orientation == Qt::Horizontal ? "maximumWidth" : "maximumHeight";
    if (!widget->window()->isVisible() || ms <= 0) {
        widget->setVisible(shown);
        return;
    }
    const int full = orientation == Qt::Horizontal
                         ? std::max(widget->sizeHint().width(), widget->minimumWidth())
                         : std::max(widget->sizeHint().height(), widget->minimumHeight());
    auto* animation = new QPropertyAnimation(widget, property, widget);
    animation->setDuration(ms);
    animation->setEasingCurve(QEasingCurve::InOutQuad);
    const int from =
        widget->isVisible() ? (orientation == Qt::Horizontal ? widget->width() : widget->height()) : 0;
    animation->setStartValue(from);
    animation->setEndValue(shown ? full : 0);
    // A fixed size would hold the widget open: let it go to 0 for the time of the motion.
    const QByteArray minimum = orientation == Qt::Horizontal ? "minimumWidth" : "minimumHeight";
    if (!animating) widget->setProperty("cutlarkTransitionMinimum", widget->property(minimum.constData()));
    const int keptMinimum = widget->property("cutlarkTransitionMinimum").toInt();
    widget->setProperty(minimum.constData(), 0);
    widget->setProperty(kRunning, true);
    widget->setProperty(kTarget, shown);
    if (shown) {
        widget->setProperty(property.constData(), from);
        widget->setVisible(true);
    }
    QObject::connect(animation, &QPropertyAnimation::finished, widget,
                     [widget, shown, property, minimum, keptMinimum, full] {
                         widget->setProperty(kRunning, false);
                         widget->setProperty(minimum.constData(), keptMinimum);
                         widget->setProperty(property.constData(),
                                             std::max(full, keptMinimum) == keptMinimum && keptMinimum > 0
                                                 ? keptMinimum
                                                 : QWIDGETSIZE_MAX);
                         if (!shown) widget->setVisible(false);
                     });
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

} // namespace cutlark
