#pragma once

#include <QByteArray>

namespace cutlark {

/// Where copied SVG goes. The window's is the system clipboard; tests read back what was put.
class Clipboard {
public:
    virtual ~Clipboard() = default;
    /// Puts `svg` (UTF-8) as plain text and as image/svg+xml, the same bytes under both.
    virtual void putSvg(const QByteArray& svg) = 0;

    /// The desktop's clipboard when a GUI application runs, else nothing.
    static Clipboard* system();
};

} // namespace cutlark
