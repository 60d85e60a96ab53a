#pragma once

#include <QLocalServer>
#include <QObject>
#include <QStringList>

namespace cutlark {

/// One window per desktop session: the first `cutlark` listens on a socket of the user's own, keyed
/// to the display it runs on, and a later one on the same display hands its files over and exits.
///
/// The socket lives in `$XDG_RUNTIME_DIR` (private to the user by design), or in a folder
/// `cutlark-<uid>` in the temporary folder that must belong to the user and be closed to others.
/// Both ends check who is at the other end (`SO_PEERCRED`): files go only to, and come only from,
/// a process of the same user. When no private place can be had there is no hand-over: each start
/// opens a window of its own.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    /// `name` is a socket path; empty means the session's own, as described above.
    explicit SingleInstance(QString name = QString(), QObject* parent = nullptr);

    /// The session's socket path, or empty when no private place for it can be had.
    static QString sessionSocketPath();

    /// Sends `files` to a running instance of the same user; false when none answers.
    bool handOver(const QStringList& files) const;
    /// Becomes the running instance; false when that isn't possible.
    bool listen();
    const QString& socketPath() const { return m_name; }

signals:
    void filesReceived(const QStringList& files);

private:
    QString m_name;
    QLocalServer m_server;
};

} // namespace cutlark
