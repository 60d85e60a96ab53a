// Subject cutouts with a network the user brings: tiny graphs written here whose answer is one
// colour channel of the picture, so the right mask is known exactly; their descriptors; the checks
// that turn a file that doesn't fit into a message; and the installed network chosen by name.
#include "CliProgram.h"
#include "TinyNetworks.h"

#include "engines/SubjectNetwork.h"
#include "engines/VisionEngine.h"

#include <QImage>
#include <QJsonArray>
#include <QPainter>

#include <cmath>

using namespace cutlark;
using namespace cutlark::test;

namespace {

const QStringList kSubject{QStringLiteral("--set"), QStringLiteral("keyWhiteEnabled=true"),
                           QStringLiteral("--set"), QStringLiteral("bgRemovalMode=subject")};

// A red rectangle on blue: the red channel is the subject.
const QRect kRed(40, 30, 80, 60);
QImage redOnBlue() {
    QImage image(160, 120, QImage::Format_RGB32);
    image.fill(QColor(0, 0, 255));
    QPainter(&image).fillRect(kRed, QColor(255, 0, 0));
    return image;
}

class NetworkChoice : public ::testing::Test {
protected:
    void TearDown() override { VisionEngine::useNetwork({}); }
    QString write(const QString& name, const QByteArray& bytes) {
        const QString path = m_dir.filePath(name);
        EXPECT_TRUE(writeBytes(path, bytes));
        return path;
    }
    SubjectNetwork choice(const QString& onnx) {
        QString why;
        const auto s = SubjectNetwork::read(onnx, &why);
        EXPECT_TRUE(s) << why.toStdString();
        return s.value_or(SubjectNetwork{});
    }
    QTemporaryDir m_dir;
};

} // namespace

TEST_F(NetworkChoice, TheMaskIsExactlyTheChannelTheNetworkAnswersWith) {
    // Mean 0 and std 1: the input is value / 255, and the output (a probability) is the red value.
    const QString red = write(QStringLiteral("red.onnx"), channelNetwork(0));
    write(QStringLiteral("red.json"), R"({"mean": 0, "std": 1, "sigmoid": false})");
    QImage ramp(1024, 1024, QImage::Format_RGB32);
    for (int y = 0; y < 1024; ++y)
        for (int x = 0; x < 1024; ++x)
            ramp.setPixel(x, y, qRgb((x + y) & 255, 255 - (x & 255), 77));
    VisionEngine::useNetwork(choice(red));
    const QImage mask = VisionEngine::mask(ramp);
    ASSERT_EQ(mask.size(), QSize(1024, 1024)) << VisionEngine::problem().toStdString();
    int wrong = 0;
    for (int y = 0; y < 1024; ++y)
        for (int x = 0; x < 1024; ++x)
            wrong += mask.constScanLine(y)[x] != ((x + y) & 255);
    EXPECT_EQ(wrong, 0);

    // The green channel through a sigmoid: (value / 255 − 0.5) / 0.05 runs from −10 to 10.
    const QString green = write(QStringLiteral("green.onnx"), channelNetwork(1));
    write(QStringLiteral("green.json"), R"({"mean": [0.1, 0.5, 0.9], "std": 0.05, "sigmoid": true})");
    VisionEngine::useNetwork(choice(green));
    const QImage logits = VisionEngine::mask(ramp);
    ASSERT_FALSE(logits.isNull()) << VisionEngine::problem().toStdString();
    for (int x : {0, 100, 127, 128, 130, 200, 255}) {
        const int g = 255 - x;
        const double expected = 255.0 / (1.0 + std::exp(-(g / 255.0 - 0.5) / 0.05));
        EXPECT_NEAR(logits.constScanLine(0)[x], expected, 1.0) << "green " << g;
    }
    EXPECT_EQ(logits.constScanLine(0)[0], 255);
    EXPECT_EQ(logits.constScanLine(0)[255], 0);
}

TEST_F(NetworkChoice, AFixedSizeNetworkRunsAtItsSizeAndTheMaskComesBackAt1024) {
    const QString path =
        write(QStringLiteral("fixed.onnx"), channelNetwork(0, {.in = {1, 3, 48, 64}, .out = {1, 48, 64}}));
    write(QStringLiteral("fixed.json"), R"({"mean": 0, "std": 1})");
    VisionEngine::useNetwork(choice(path));
    const auto info = VisionEngine::networkInfo();
    ASSERT_TRUE(info) << VisionEngine::problem().toStdString();
    EXPECT_EQ(info->width, 64);
    EXPECT_EQ(info->height, 48);
    EXPECT_EQ(info->input, QStringLiteral("image"));
    EXPECT_EQ(info->output, QStringLiteral("mask"));
    QImage halves(640, 480, QImage::Format_RGB32);
    halves.fill(Qt::black);
    QPainter(&halves).fillRect(0, 0, 320, 480, Qt::red);
    const QImage mask = VisionEngine::mask(halves);
    ASSERT_EQ(mask.size(), QSize(1024, 1024));
    EXPECT_EQ(mask.constScanLine(500)[100], 255);
    EXPECT_EQ(mask.constScanLine(500)[900], 0);
}

TEST_F(NetworkChoice, TheCutoutIsTheChannelsRegion) {
    const QString input = m_dir.filePath(QStringLiteral("shot.png"));
    ASSERT_TRUE(redOnBlue().save(input));
    const QString red = write(QStringLiteral("red.onnx"), channelNetwork(0));
    write(QStringLiteral("red.json"), R"({"mean": 0, "std": 1})");
    const QString out = m_dir.filePath(QStringLiteral("out"));
    const CliRun run = cli(QStringList{QStringLiteral("process"), QStringLiteral("--network"), red,
                                       QStringLiteral("-o"), out, input} +
                           kSubject);
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QImage result(QDir(out).filePath(QStringLiteral("shot-out.png")));
    ASSERT_EQ(result.size(), QSize(160, 120));
    // Away from the softened edge, opaque inside the red and transparent outside it.
    int wrong = 0;
    for (int y = 0; y < 120; ++y)
        for (int x = 0; x < 160; ++x) {
            const int alpha = qAlpha(result.pixel(x, y));
            if (kRed.adjusted(3, 3, -3, -3).contains(x, y)) wrong += alpha != 255;
            if (!kRed.adjusted(-1, -1, 1, 1).contains(x, y)) wrong += alpha != 0;
        }
    EXPECT_EQ(wrong, 0);
}

TEST_F(NetworkChoice, NetworksThatDontFitAreNamedWithWhatIsWrong) {
    const QString input = m_dir.filePath(QStringLiteral("shot.png"));
    ASSERT_TRUE(redOnBlue().save(input));
    const QString out = m_dir.filePath(QStringLiteral("out"));
    const auto refused = [&](const QString& network, const QString& says) {
        const CliRun run = cli(QStringList{QStringLiteral("process"), QStringLiteral("--network"), network,
                                           QStringLiteral("-o"), out, input} +
                               kSubject);
        EXPECT_EQ(run.exitCode, 1) << network.toStdString();
        EXPECT_TRUE(run.err.contains(says)) << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(QStringLiteral("nothing was written"))) << run.err.toStdString();
        EXPECT_FALSE(QDir(out).exists()) << "nothing written for " << network.toStdString();
    };
    const QString grey = write(QStringLiteral("grey.onnx"), channelNetwork(0, {.in = {1, 1, -1, -1}}));
    refused(grey, QStringLiteral("“%1” takes floats of 1 × 1 × ? × ?").arg(grey));
    const QString three =
        write(QStringLiteral("three.onnx"), channelNetwork(0, {.out = {1, 3, -1, -1}, .passThrough = true}));
    refused(three, QStringLiteral(
                       "“%1” gives no output of 1 × 1 × 1024 × 1024 floats (it gives mask (1 × 3 × ? × ?))")
                       .arg(three));
    const QString fixed = write(QStringLiteral("fixed.onnx"), channelNetwork(0, {.in = {1, 3, 48, 64}}));
    write(QStringLiteral("fixed.json"), R"({"size": [32, 32]})");
    refused(fixed, QStringLiteral("“%1” takes pictures of 64 × 48, but “%2” says 32 × 32")
                       .arg(fixed, m_dir.filePath(QStringLiteral("fixed.json"))));
    const QString junk = write(QStringLiteral("junk.onnx"), QByteArray("not a network at all"));
    refused(junk, junk);
    refused(m_dir.filePath(QStringLiteral("missing.onnx")),
            QStringLiteral("“%1” doesn’t exist").arg(m_dir.filePath(QStringLiteral("missing.onnx"))));

    // Descriptors with bad numbers, a typing slip, or no JSON at all.
    const QString red = write(QStringLiteral("red.onnx"), channelNetwork(0));
    const QString json = m_dir.filePath(QStringLiteral("red.json"));
    const QList<QPair<QByteArray, QString>> descriptors{
        {R"({"std": 0})",
         QStringLiteral("“%1”: \"std\" needs one number or three (R, G, B) from 0.001 to 100")},
        {R"({"size": [10, 1024]})", QStringLiteral("“%1”: \"size\" needs two whole numbers from 16 to 4096")},
        {R"({"mean": [0.5, 0.5]})", QStringLiteral("“%1”: \"mean\" needs one number or three")},
        {R"({"sigmoid": "yes"})", QStringLiteral("“%1”: \"sigmoid\" needs true")},
        {R"({"szie": [320, 320]})", QStringLiteral("“%1”: \"szie\" isn’t a key of a network’s descriptor")},
        {"size: 320", QStringLiteral("“%1” isn’t a JSON object")},
    };
    for (const auto& [text, says] : descriptors) {
        ASSERT_TRUE(writeBytes(json, text));
        refused(red, says.arg(json));
    }

    // info describes a network that fits, and names one that doesn't.
    ASSERT_TRUE(writeBytes(
        json, R"({"mean": [0.485, 0.456, 0.406], "std": [0.229, 0.224, 0.225], "sigmoid": true})"));
    const CliRun info = cli({QStringLiteral("info"), QStringLiteral("--network"), red});
    ASSERT_EQ(info.exitCode, 0) << info.err.toStdString();
    ASSERT_EQ(info.lines.size(), 1);
    EXPECT_EQ(info.lines[0].value(QStringLiteral("size")).toArray(), (QJsonArray{1024, 1024}));
    EXPECT_EQ(info.lines[0].value(QStringLiteral("input")).toString(), QStringLiteral("image"));
    EXPECT_EQ(info.lines[0].value(QStringLiteral("std")).toArray().at(2).toDouble(), 0.225);
    EXPECT_TRUE(info.lines[0].value(QStringLiteral("sigmoid")).toBool());
    const CliRun bad = cli({QStringLiteral("info"), QStringLiteral("--network"), grey});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_TRUE(bad.err.contains(grey)) << bad.err.toStdString();
}

TEST_F(NetworkChoice, TheInstalledNetworkByNameGivesTheSameBytes) {
    const QString isnet = VisionEngine::modelPath();
    ASSERT_FALSE(isnet.isEmpty()) << "the set-up fetches the subject network";
    const QString input = m_dir.filePath(QStringLiteral("cat.png"));
    ASSERT_TRUE(QFile::copy(testPhoto(QStringLiteral("chelsea.png")), input));
    const CliRun plain = cli(QStringList{QStringLiteral("process"), QStringLiteral("-o"),
                                         m_dir.filePath(QStringLiteral("a")), input} +
                             kSubject);
    const CliRun named = cli(QStringList{QStringLiteral("process"), QStringLiteral("--network"), isnet,
                                         QStringLiteral("-o"), m_dir.filePath(QStringLiteral("b")), input} +
                             kSubject);
    ASSERT_EQ(plain.exitCode, 0) << plain.err.toStdString();
    ASSERT_EQ(named.exitCode, 0) << named.err.toStdString();
    const QByteArray a = readBytes(m_dir.filePath(QStringLiteral("a/cat-out.png")));
    EXPECT_FALSE(a.isEmpty());
    EXPECT_TRUE(a == readBytes(m_dir.filePath(QStringLiteral("b/cat-out.png"))));
}

TEST_F(NetworkChoice, OnASoftwareGpuTheMaskIsTheCpusOrTheReasonIsSaid) {
    // Allowed to take a software Vulkan device, the runtime's WebGPU back end either runs the network
    // (and gives the CPU's mask within one level) or is refused with the reason, and the CPU runs it.
    const QString red = write(QStringLiteral("red.onnx"), channelNetwork(0));
    write(QStringLiteral("red.json"), R"({"mean": 0, "std": 1})");
    const QString input = m_dir.filePath(QStringLiteral("shot.png"));
    ASSERT_TRUE(redOnBlue().save(input));
    QProcessEnvironment cpu = QProcessEnvironment::systemEnvironment();
    cpu.insert(QStringLiteral("CUTLARK_GPU"), QStringLiteral("off"));
    QProcessEnvironment gpu = QProcessEnvironment::systemEnvironment();
    gpu.insert(QStringLiteral("CUTLARK_GPU"), QStringLiteral("software"));
    const CliRun off = cli({QStringLiteral("info"), QStringLiteral("--network"), red}, cpu);
    ASSERT_EQ(off.exitCode, 0) << off.err.toStdString();
    EXPECT_EQ(off.lines[0].value(QStringLiteral("notOnGpu")).toString(),
              QStringLiteral("the GPU is switched off (CUTLARK_GPU=off)"));
    const CliRun info = cli({QStringLiteral("info"), QStringLiteral("--network"), red}, gpu);
    ASSERT_EQ(info.exitCode, 0) << info.err.toStdString();
    const QString runsOn = info.lines[0].value(QStringLiteral("runsOn")).toString();
    const QString whyNot = info.lines[0].value(QStringLiteral("notOnGpu")).toString();
    EXPECT_TRUE(runsOn.contains(QStringLiteral("on the GPU")) != !whyNot.isEmpty())
        << "on the GPU, or a reason why not: " << runsOn.toStdString() << " / " << whyNot.toStdString();
    const auto run = [&](const QProcessEnvironment& env, const QString& out) {
        const CliRun r = cli(QStringList{QStringLiteral("process"), QStringLiteral("--network"), red,
                                         QStringLiteral("-o"), m_dir.filePath(out), input} +
                                 kSubject,
                             env);
        EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
        return QImage(m_dir.filePath(out + QStringLiteral("/shot-out.png")));
    };
    const QImage a = run(cpu, QStringLiteral("cpu"));
    const QImage b = run(gpu, QStringLiteral("gpu"));
    ASSERT_EQ(a.size(), b.size());
    int worst = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            worst = std::max(worst, std::abs(qAlpha(a.pixel(x, y)) - qAlpha(b.pixel(x, y))));
    EXPECT_LE(worst, 1);
}
