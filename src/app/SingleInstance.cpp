#include "app/SingleInstance.h"

#include "support/PrivateDir.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QLocalSocket>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cutlark {

namespace {

// The user at the other end of a connected local socket; -1 when it can't be told.
qint64 peerUid(qintptr descriptor) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (descriptor < 0 || getsockopt(int(descriptor), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return -1;
    return credentials.uid;
}

// The display a window would appear on, as a file-name part: another seat, a nested or remote
// session gets a window of its own.
QString displayKey() {
    QString display = qEnvironmentVariable("WAYLAND_DISPLAY");
    if (display.isEmpty()) display = qEnvironmentVariable("DISPLAY");
    if (display.isEmpty()) display = QStringLiteral("none");
    QString key;
    for (const QChar c : display)
        key +=
            (c.isLetterOrNumber() || c == QLatin1Char('.') || c == QLatin1Char('-')) ? c : QLatin1Char('_');
    return key.left(64);
}

} // namespace

QString SingleInstance::sessionSocketPath() {
    QString folder = PrivateDir::runtimeDir();
    if (folder.isEmpty())
        folder =
            PrivateDir::ensure(QDir(QDir::tempPath()).filePath(QStringLiteral("cutlark-%1").arg(getuid())));
    if (folder.isEmpty()) return QString(); // taken by someone else, or open to them
    return QDir(folder).filePath(QStringLiteral("cutlark-%1.socket").arg(displayKey()));
}

SingleInstance::SingleInstance(QString name, QObject* parent)
    : QObject(parent), m_name(name.isEmpty() ? sessionSocketPath() : std::move(name)) {
    connect(&m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_server.nextPendingConnection()) {
            if (peerUid(socket->socketDescriptor()) != qint64(getuid())) {
                socket->abort(); // another user's process has nothing to hand us
                socket->deleteLater();
                continue;
            }
            // The whole list arrives before the other side hangs up.
            connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
                QDataStream in(socket->readAll());
                QStringList files;
                in >> files;
                socket->deleteLater();
                emit filesReceived(files);
            });
        }
    });
}

bool SingleInstance::handOver(const QStringList& files) const {
    if (m_name.isEmpty()) return false;
    QLocalSocket socket;
    socket.connectToServer(m_name);
    if (!socket.waitForConnected(500)) return false;
    // Files go only to a window of the same user, never to whoever took the name first.
    if (peerUid(socket.socketDescriptor()) != qint64(getuid())) {
        socket.abort();
        return false;
    }
    QByteArray payload;
    QDataStream out(&payload, QIODevice::WriteOnly);
    out << files;
    socket.write(payload);
    socket.waitForBytesWritten(2000);
    socket.disconnectFromServer();
    if (socket.state() != QLocalSocket::UnconnectedState) socket.waitForDisconnected(2000);
    return true;
}

bool SingleInstance::listen() {
    if (m_name.isEmpty()) return false;
    m_server.setSocketOptions(QLocalServer::UserAccessOption);
    if (m_server.listen(m_name)) return true;
    // A socket left behind by a crashed instance: nobody answered the hand-over, so take it over —
    // but only a socket of our own, in our own folder.
    struct stat st {};
    const QByteArray path = QFile::encodeName(m_name);
    if (lstat(path.constData(), &st) != 0 || !S_ISSOCK(st.st_mode) || st.st_uid != getuid()) return false;
    QLocalServer::removeServer(m_name);
    return m_server.listen(m_name);
}

} // namespace cutlark
