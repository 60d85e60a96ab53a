#pragma once

#include <QLocalServer>
#include <QObject>
#include <QStringList>

namespace cutlark {

/// One window per user: the first `cutlark` listens on a per-user local socket, and a later one hands
/// its files over and exits.
class SingleInstance : public QObject {
    Q_OBJECT

public:
    /// `name` defaults to the per-user socket of the application.
    explicit SingleInstance(QString name = QString(), QObject* parent = nullptr);

    /// Sends `files` to a running instance; false when none answers.
    bool handOver(const QStringList& files) const;
    /// Becomes the running instance.
    bool listen();

signals:
    void filesReceived(const QStringList& files);

private:
    QString m_name;
    QLocalServer m_server;
};

} // namespace cutlark
