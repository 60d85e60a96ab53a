#pragma once

#include <QObject>
#include <QStringList>

namespace cutlark {

/// Files handed to the application (its command line, a second start, the Open menu) wait here until
/// the window takes them: when it appears, and at each delivery after that.
class FileOpenInbox : public QObject {
    Q_OBJECT

public:
    static FileOpenInbox& instance();

    /// Replaces what waits with `files` and tells the window.
    void deliver(const QStringList& files);
    /// Takes what waits and leaves the inbox empty.
    QStringList take();
    const QStringList& pending() const { return m_pending; }

signals:
    void didReceive();

private:
    QStringList m_pending;
};

} // namespace cutlark
