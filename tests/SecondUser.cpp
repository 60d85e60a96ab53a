#include "SecondUser.h"

#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <unistd.h>

namespace cutlark::test::secondUser {

namespace {

QStringList command(const QString& script) {
    return {QStringLiteral("--reuid=65534"),
            QStringLiteral("--regid=65534"),
            QStringLiteral("--clear-groups"),
            QStringLiteral("/bin/sh"),
            QStringLiteral("-c"),
            script};
}

} // namespace

QString unavailableBecause() {
    if (geteuid() != 0) return QStringLiteral("playing a second local user needs root (setpriv)");
    if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        return QStringLiteral("setpriv isn't installed");
    return QString();
}

int run(const QString& script) {
    QProcess p;
    p.start(QStringLiteral("setpriv"), command(script));
    if (!p.waitForFinished(30000) || p.exitStatus() != QProcess::NormalExit) return -1;
    return p.exitCode();
}

qint64 start(const QString& script) {
    qint64 pid = 0;
    return QProcess::startDetached(QStringLiteral("setpriv"), command(script), QString(), &pid) ? pid : 0;
}

} // namespace cutlark::test::secondUser
