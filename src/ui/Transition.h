#pragma once

#include <Qt>

class QWidget;

namespace cutlark {

/// Shows or hides a widget with an ease-in-out change of its width or height over `ms` milliseconds,
/// so that the layout around it moves smoothly. Immediate while the window isn't on screen, or when the
/// widget already is as asked.
void setShown(QWidget* widget, bool shown, int ms, Qt::Orientation orientation);

} // namespace cutlark
