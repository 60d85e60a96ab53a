#include "SecondUser.h"
#include "TestSupport.h"

#include "app/SingleInstance.h"
#include "support/PrivateDir.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QThread>
#include <QUuid>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

TEST(SingleInstance, ASecondStartHandsItsFilesToTheFirst) {
    const QString name = QStringLiteral("cutlark-test-") + QUuid::createUuid().toString(QUuid::WithoutBraces);
    SingleInstance later(name);
    EXPECT_FALSE(later.handOver({QStringLiteral("/tmp/a.png")})) << "nobody runs yet";

    SingleInstance first(name);
    ASSERT_TRUE(first.listen());
    QStringList received;
    QObject::connect(&first, &SingleInstance::filesReceived, [&](const QStringList& f) { received = f; });
    const QStringList files = {QStringLiteral("/tmp/a b.png"), QStringLiteral("/tmp/ü.jpg")};
    EXPECT_TRUE(later.handOver(files));
    QElapsedTimer timer;
    timer.start();
    while (received.isEmpty() && timer.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    EXPECT_EQ(received, files);
}

namespace {

/// Sets an environment variable for the life of the object.
struct ScopedEnv {
    ScopedEnv(const char* name, const QByteArray& value) : m_name(name), m_old(qgetenv(name)) {
        if (value.isNull())
            qunsetenv(name);
        else
            qputenv(name, value);
    }
    ~ScopedEnv() {
        if (m_old.isNull())
            qunsetenv(m_name);
        else
            qputenv(m_name, m_old);
    }
    const char* m_name;
    QByteArray m_old;
};

} // namespace

TEST(SingleInstance, TheSocketIsTheSessionsOwnInTheRuntimeFolder) {
    QTemporaryDir runtime; // made 0700, as a session's runtime folder is
    ScopedEnv xdg("XDG_RUNTIME_DIR", QFile::encodeName(runtime.path()));
    ScopedEnv wayland("WAYLAND_DISPLAY", QByteArray());
    QString first, second;
    {
        ScopedEnv display("DISPLAY", ":7");
        first = SingleInstance::sessionSocketPath();
    }
    {
        ScopedEnv display("DISPLAY", ":8.0");
        second = SingleInstance::sessionSocketPath();
    }
    EXPECT_EQ(first, QDir(runtime.path()).filePath(QStringLiteral("cutlark-_7.socket")));
    EXPECT_NE(first, second) << "a window on another display is another instance";

    SingleInstance window(first);
    ASSERT_TRUE(window.listen());
    QStringList received;
    QObject::connect(&window, &SingleInstance::filesReceived, [&](const QStringList& f) { received = f; });
    EXPECT_TRUE(SingleInstance(first).handOver({QStringLiteral("/tmp/x.png")}));
    QElapsedTimer timer;
    timer.start();
    while (received.isEmpty() && timer.elapsed() < 5000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    EXPECT_EQ(received, QStringList{QStringLiteral("/tmp/x.png")});
    EXPECT_FALSE(SingleInstance(second).handOver({QStringLiteral("/tmp/y.png")}))
        << "nobody on the other display";
}

TEST(SingleInstance, AnotherUserCanNeitherSquatTheNameNorReceiveTheFiles) {
    const QString why = secondUser::unavailableBecause();
    if (!why.isEmpty()) GTEST_SKIP() << qPrintable(why);

    // Someone else listens where a victim's hand-over goes: the files don't go to them.
    QTemporaryDir shared;
    chmod(QFile::encodeName(shared.path()).constData(), 0777);
    const QString socketPath = shared.filePath(QStringLiteral("squat.socket"));
    const QString caught = shared.filePath(QStringLiteral("caught"));
    const QString script = shared.filePath(QStringLiteral("squat.py"));
    const QString ready = shared.filePath(QStringLiteral("listening"));
    // Says when it listens (the socket's file exists from bind on, before connections are taken),
    // and gives up by itself if no connection ever comes.
    writeBytes(script, "import os, socket, sys\n"
                       "s = socket.socket(socket.AF_UNIX)\n"
                       "s.bind(sys.argv[1]); os.chmod(sys.argv[1], 0o777); s.listen(1)\n"
                       "open(sys.argv[3], 'w').close()\n"
                       "s.settimeout(30)\n"
                       "c, _ = s.accept(); c.settimeout(5)\n"
                       "data = b''\n"
                       "try:\n"
                       "    while True:\n"
                       "        d = c.recv(65536)\n"
                       "        if not d: break\n"
                       "        data += d\n"
                       "except Exception: pass\n"
                       "open(sys.argv[2], 'wb').write(data)\n");
    chmod(QFile::encodeName(script).constData(), 0644);
    // exec, and its own output elsewhere: nothing of it holds the test's output open.
    const qint64 squatter =
        secondUser::start(QStringLiteral("exec python3 '%1' '%2' '%3' '%4' </dev/null >/dev/null 2>&1")
                              .arg(script, socketPath, caught, ready));
    ASSERT_GT(squatter, 0);
    const auto stopSquatter = qScopeGuard([squatter] { ::kill(pid_t(squatter), SIGKILL); });
    QElapsedTimer timer;
    timer.start();
    while (!QFileInfo::exists(ready) && timer.elapsed() < 20000)
        QThread::msleep(20);
    ASSERT_TRUE(QFileInfo::exists(ready));
    EXPECT_FALSE(SingleInstance(socketPath).handOver({QStringLiteral("/home/victim/secret.png")}));
    timer.restart();
    while (!QFileInfo::exists(caught) && timer.elapsed() < 10000)
        QThread::msleep(20);
    EXPECT_FALSE(readBytes(caught).contains("secret")) << "nothing was sent to the other user";

    // Without a runtime folder the socket's folder in /tmp must be ours: taken by someone else
    // first, there is simply no hand-over, and each start opens its own window.
    ScopedEnv xdg("XDG_RUNTIME_DIR", QByteArray());
    const QString fallback = QDir(QDir::tempPath()).filePath(QStringLiteral("cutlark-%1").arg(getuid()));
    if (QFileInfo::exists(fallback)) {
        std::printf("[ note ] %s exists already; the squatted-folder case isn't run\n", qPrintable(fallback));
        return;
    }
    ASSERT_EQ(secondUser::run(QStringLiteral("mkdir -m 777 '%1'").arg(fallback)), 0);
    EXPECT_TRUE(SingleInstance::sessionSocketPath().isEmpty());
    SingleInstance window;
    EXPECT_FALSE(window.listen());
    EXPECT_FALSE(window.handOver({QStringLiteral("/tmp/a.png")}));
    secondUser::run(QStringLiteral("rm -rf '%1'").arg(fallback));
    // Free again, it is made ours and private.
    EXPECT_FALSE(SingleInstance::sessionSocketPath().isEmpty());
    EXPECT_TRUE(PrivateDir::isPrivate(fallback));
    QDir(fallback).removeRecursively();
}
