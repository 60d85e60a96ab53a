#include "app/SingleInstance.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QUuid>

#include <gtest/gtest.h>

using namespace cutlark;

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
    while (received.isEmpty() && timer.elapsed() < 5000) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    EXPECT_EQ(received, files);
}
