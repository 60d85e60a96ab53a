#include "model/Clipboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

#include <gtest/gtest.h>

using namespace cutlark;

TEST(SystemClipboard, SvgGoesInAsTextAndAsSvgWithTheSameBytes) {
    Clipboard* clipboard = Clipboard::system();
    ASSERT_NE(clipboard, nullptr);
    const QByteArray svg = QStringLiteral("<svg>ü</svg>").toUtf8();
    clipboard->putSvg(svg);
    const QMimeData* mime = QGuiApplication::clipboard()->mimeData();
    ASSERT_NE(mime, nullptr);
    EXPECT_EQ(mime->text().toUtf8(), svg);
    EXPECT_EQ(mime->data(QStringLiteral("image/svg+xml")), svg);
}
