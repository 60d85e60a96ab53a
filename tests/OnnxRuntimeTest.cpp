// The binding to ONNX Runtime against the real library the set-up fetches, on a tiny graph written
// here with the subject network's input and output names.
#include "TestSupport.h"
#include "TinyNetworks.h"

#include "engines/OnnxRuntime.h"

#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using namespace cutlark;
using namespace cutlark::test;

TEST(OnnxRuntime, LoadsTheRealLibraryAndRunsATinyGraph) {
    // What isn't ONNX Runtime is refused with a reason, and doesn't stop the real one loading next.
    const QString notOrt = QStringLiteral("/lib/x86_64-linux-gnu/libz.so.1");
    if (QFileInfo::exists(notOrt)) {
        OnnxRuntime::setLibraryPath(notOrt);
        QString why;
        EXPECT_FALSE(OnnxRuntime::version(&why));
        EXPECT_TRUE(why.contains(QStringLiteral("is not ONNX Runtime"))) << why.toStdString();
    }
    OnnxRuntime::setLibraryPath(QStringLiteral("/nonexistent/libonnxruntime.so.1"));
    QString why;
    EXPECT_FALSE(OnnxRuntime::version(&why));
    EXPECT_FALSE(why.isEmpty());

    OnnxRuntime::setLibraryPath(QString());
    ASSERT_FALSE(OnnxRuntime::libraryPath().isEmpty())
        << "the set-up puts libonnxruntime.so.1 into the cache folder";
    const auto version = OnnxRuntime::version(&why);
    ASSERT_TRUE(version) << why.toStdString();
    EXPECT_EQ(*version, QStringLiteral("1.30.0"));

    QTemporaryDir dir;
    const QString modelPath = dir.filePath(QStringLiteral("tiny.onnx"));
    ASSERT_TRUE(writeBytes(modelPath, channelMeanModel()));
    auto session = OnnxRuntime::Session::open(modelPath, 2, &why);
    ASSERT_TRUE(session) << why.toStdString();
    // The graph's declared ports, as a network's checks read them.
    ASSERT_EQ(session->inputs().size(), 1u);
    EXPECT_EQ(session->inputs()[0].name, "input");
    EXPECT_TRUE(session->inputs()[0].tensor);
    EXPECT_EQ(session->inputs()[0].elementType, 1);
    EXPECT_EQ(session->inputs()[0].shape, (std::vector<int64_t>{1, 3, 2, 2}));
    ASSERT_EQ(session->outputs().size(), 1u);
    EXPECT_EQ(session->outputs()[0].name, "output");
    EXPECT_EQ(session->outputs()[0].shape, (std::vector<int64_t>{1, 1, 2, 2}));

    // Channel planes 1..4, 10..40 and 100..400: the mean of each position is 37, 74, 111, 148.
    OnnxRuntime::Session::Tensor input{{1, 3, 2, 2}, {1, 2, 3, 4, 10, 20, 30, 40, 100, 200, 300, 400}};
    const auto out = session->run("input", input, "output", &why);
    ASSERT_TRUE(out) << why.toStdString();
    EXPECT_EQ(out->shape, (std::vector<int64_t>{1, 1, 2, 2}));
    EXPECT_EQ(out->values, (std::vector<float>{37, 74, 111, 148}));

    // The runtime's refusals come back as messages, and the session stays usable.
    EXPECT_FALSE(session->run("image", input, "output", &why));
    EXPECT_TRUE(why.contains(QStringLiteral("image"))) << why.toStdString();
    EXPECT_FALSE(session->run("input", input, "mask", &why));
    EXPECT_FALSE(why.isEmpty());
    OnnxRuntime::Session::Tensor wrongShape{{1, 3, 2, 1}, {1, 2, 3, 4, 5, 6}};
    EXPECT_FALSE(session->run("input", wrongShape, "output", &why));
    OnnxRuntime::Session::Tensor short_{{1, 3, 2, 2}, {1, 2, 3}};
    EXPECT_FALSE(session->run("input", short_, "output", &why)) << "values that don't fill the shape";
    EXPECT_TRUE(session->run("input", input, "output"));

    // Open dimensions read as −1; an integer output keeps its element type.
    const QString open = dir.filePath(QStringLiteral("open.onnx"));
    ASSERT_TRUE(writeBytes(open, channelNetwork(0, {.out = {1, 1, -1, -1}})));
    auto openSession = OnnxRuntime::Session::open(open, 1, &why);
    ASSERT_TRUE(openSession) << why.toStdString();
    EXPECT_EQ(openSession->inputs()[0].name, "image");
    EXPECT_EQ(openSession->inputs()[0].shape, (std::vector<int64_t>{1, 3, -1, -1}));
    EXPECT_EQ(openSession->outputs()[0].name, "mask");
    EXPECT_EQ(openSession->outputs()[0].shape, (std::vector<int64_t>{1, 1, -1, -1}));
    OnnxRuntime::Session::Tensor rgb{{1, 3, 1, 2}, {0.25f, 0.5f, 7, 8, 9, 10}};
    const auto red = openSession->run("image", rgb, "mask", &why);
    ASSERT_TRUE(red) << why.toStdString();
    EXPECT_EQ(red->values, (std::vector<float>{0.25f, 0.5f})) << "the network answers with the red channel";

    // A file that isn't a model is refused when the session is made.
    const QString junk = dir.filePath(QStringLiteral("junk.onnx"));
    ASSERT_TRUE(writeBytes(junk, QByteArray("not a model")));
    EXPECT_FALSE(OnnxRuntime::Session::open(junk, 1, &why));
    EXPECT_FALSE(why.isEmpty());
}
