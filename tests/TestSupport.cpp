#include "TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QPainter>
#include <QProcess>
#include <QStandardPaths>
#include <QSvgRenderer>

#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QImageWriter>
#include <QtEndian>
#include <QThreadPool>

#include <gtest/gtest.h>

namespace cutlark::test {

QImage renderedSvg(const QString& svg, QSize size) {
    QSvgRenderer renderer(svg.toUtf8());
    QImage out(size, QImage::Format_ARGB32_Premultiplied);
    out.fill(Qt::transparent);
    QPainter p(&out);
    renderer.render(&p);
    return out;
}

namespace {

// A model can leave work on Qt's global pool behind it (a cutout is never cancelled). A program
// with an application object waits for that work when the object goes; a suite without one must
// wait too, or the work runs on inside a library whose statics are being destroyed at exit.
class PoolDrained : public ::testing::Environment {
public:
    void TearDown() override { QThreadPool::globalInstance()->waitForDone(); }
};
[[maybe_unused]] const auto* const poolDrained = ::testing::AddGlobalTestEnvironment(new PoolDrained);

} // namespace

QImage solid(int w, int h, const QColor& color) {
    QImage image(w, h, QImage::Format_RGBA8888_Premultiplied);
    image.fill(color);
    return image;
}

QImage coordinates(int w, int h) {
    QImage image(w, h, QImage::Format_RGBA8888_Premultiplied);
    for (int y = 0; y < h; ++y) {
        uchar* row = image.scanLine(y);
        for (int x = 0; x < w; ++x) {
            row[4 * x] = uchar(x);
            row[4 * x + 1] = uchar(y);
            row[4 * x + 2] = 7;
            row[4 * x + 3] = 255;
        }
    }
    return image;
}

void put(QImage& image, int x, int y, uchar r, uchar g, uchar b, uchar a) {
    uchar* p = image.scanLine(y) + 4 * x;
    p[0] = r;
    p[1] = g;
    p[2] = b;
    p[3] = a;
}

bool writeImage(const QImage& image, const QString& path, const char* format, int quality) {
    QDir().mkpath(QFileInfo(path).path()); // "shoot/day 2/b.png" makes its folders
    QImageWriter writer(path, format);
    if (quality >= 0) writer.setQuality(quality);
    return writer.write(image);
}

bool writeBytes(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

QString savePng(const QTemporaryDir& dir, const QString& name, const QImage& image) {
    const QString path = dir.filePath(name);
    return writeImage(image, path, "png") ? path : QString();
}

QByteArray readBytes(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

QByteArray jpegWithOrientation(const QImage& image, int orientation) {
    QByteArray plain;
    QBuffer buffer(&plain);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, "jpeg");
    writer.setQuality(100);
    writer.write(image.convertToFormat(QImage::Format_RGB32));

    // APP1 "Exif" with a big-endian TIFF header and one IFD entry: Orientation (0x0112), SHORT, 1.
    QByteArray tiff;
    tiff += "MM";
    tiff += QByteArray::fromHex("002a00000008");     // magic 42, IFD at offset 8
    tiff += QByteArray::fromHex("0001");             // one entry
    tiff += QByteArray::fromHex("0112000300000001"); // tag, type SHORT, count 1
    QByteArray value(4, 0);
    value[1] = char(orientation); // SHORT, left-justified in the 4-byte field
    tiff += value;
    tiff += QByteArray::fromHex("00000000"); // no next IFD
    QByteArray app1 = QByteArray("Exif\0\0", 6) + tiff;
    QByteArray segment = QByteArray::fromHex("ffe1");
    const quint16 length = quint16(app1.size() + 2);
    segment += char(length >> 8);
    segment += char(length & 0xff);
    segment += app1;
    // Right after SOI, before the writer's own segments.
    return plain.left(2) + segment + plain.mid(2);
}

namespace {
quint32 crc32(const QByteArray& data) {
    quint32 crc = 0xffffffffu;
    for (char ch : data) {
        crc ^= quint8(ch);
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return crc ^ 0xffffffffu;
}

QByteArray chunk(const char* type, const QByteArray& data) {
    QByteArray out(4, 0);
    qToBigEndian(quint32(data.size()), out.data());
    const QByteArray body = QByteArray(type, 4) + data;
    out += body;
    QByteArray crc(4, 0);
    qToBigEndian(crc32(body), crc.data());
    return out + crc;
}
} // namespace

QByteArray pngHeaderOnly(quint32 width, quint32 height) {
    QByteArray ihdr(13, 0);
    qToBigEndian(width, ihdr.data());
    qToBigEndian(height, ihdr.data() + 4);
    ihdr[8] = 8; // bit depth
    ihdr[9] = 6; // RGBA
    QByteArray png = QByteArray::fromHex("89504e470d0a1a0a");
    png += chunk("IHDR", ihdr);
    png += chunk("IDAT", QByteArray::fromHex("789c030000000001")); // an empty zlib stream
    png += chunk("IEND", QByteArray());
    return png;
}

// Both made once with ImageMagick; tiny enough to keep here as bytes.
QByteArray cmykJpeg() {
    static const char bytes[] =
        "\xff\xd8\xff\xee\x00\x0e\x41\x64\x6f\x62\x65\x00\x64\x00\x00\x00\x00\x02\xff\xdb\x00\x43\x00\x03\x02"
        "\x02\x03\x02\x02\x03\x03\x03\x03\x04\x03\x03\x04\x05\x08\x05\x05\x04\x04\x05\x0a\x07\x07\x06\x08\x0c"
        "\x0a\x0c\x0c\x0b\x0a\x0b\x0b\x0d\x0e\x12\x10\x0d\x0e\x11\x0e\x0b\x0b\x10\x16\x10\x11\x13\x14\x15\x15"
        "\x15\x0c\x0f\x17\x18\x16\x14\x18\x12\x14\x15\x14\xff\xdb\x00\x43\x01\x03\x04\x04\x05\x04\x05\x09\x05"
        "\x05\x09\x14\x0d\x0b\x0d\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14"
        "\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14\x14"
        "\x14\x14\x14\x14\x14\x14\xff\xc0\x00\x14\x08\x00\x04\x00\x06\x04\x01\x11\x00\x02\x11\x01\x03\x11\x01"
        "\x04\x11\x00\xff\xc4\x00\x15\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x08"
        "\x09\xff\xc4\x00\x14\x10\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\xff\xc4"
        "\x00\x15\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x07\x09\xff\xc4\x00\x14"
        "\x11\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\xff\xda\x00\x0e\x04\x01\x00"
        "\x02\x11\x03\x11\x04\x00\x00\x3f\x00\x44\x1c\xd2\xa9\x54\xdf\xff\xd9";
    return QByteArray(bytes, sizeof(bytes) - 1);
}

QByteArray animatedGif() {
    static const char bytes[] =
        "\x47\x49\x46\x38\x39\x61\x05\x00\x03\x00\xf0\x00\x00\x00\x00\xff\x00\x00\x00\x21\xf9\x04\x00\x00\x00"
        "\x00\x00\x21\xff\x0b\x4e\x45\x54\x53\x43\x41\x50\x45\x32\x2e\x30\x03\x01\x00\x00\x00\x2c\x00\x00\x00"
        "\x00\x05\x00\x03\x00\x00\x02\x03\x84\x8f\x59\x00\x21\xf9\x04\x00\x00\x00\x00\x00\x2c\x00\x00\x00\x00"
        "\x05\x00\x03\x00\x80\xff\xff\x00\x00\x00\x00\x02\x03\x84\x8f\x59\x00\x3b";
    return QByteArray(bytes, sizeof(bytes) - 1);
}

namespace {
// The next answer of a script, or none (a cancelled panel) when the script has run out.
template <class T> std::optional<T> takeFront(std::deque<std::optional<T>>& answers) {
    if (answers.empty()) return std::nullopt;
    std::optional<T> answer;
    answer.swap(answers.front());
    answers.pop_front();
    return answer;
}
} // namespace

std::optional<QStringList> ScriptedPanels::openImages(bool) {
    ++openCalls;
    return takeFront(openAnswers);
}

std::optional<QString> ScriptedPanels::saveFile(const QString&, const QString& proposedName,
                                                const QString& type) {
    ++saveCalls;
    proposedNames << proposedName;
    saveTypes << type;
    return takeFront(saveAnswers);
}

std::optional<QString> ScriptedPanels::openFile(const QString&) {
    return takeFront(fileAnswers);
}

std::optional<QString> ScriptedPanels::chooseFolder(const QString&, const QString&, const QString&) {
    ++folderCalls;
    return takeFront(folderAnswers);
}

ChangeCounter::ChangeCounter(CropModel& model) {
    m_connection = QObject::connect(&model, &CropModel::changed, &model,
                                    [this](CropModel::Field f) { m_counts[f] += 1; });
}

ChangeCounter::~ChangeCounter() {
    QObject::disconnect(m_connection);
}

ProgramRun runProgram(const QString& program, const QStringList& arguments,
                      const QProcessEnvironment& environment, const QByteArray& input, int waitMs,
                      const std::function<void()>& setUp) {
    QProcess p;
    p.setProcessEnvironment(environment);
    if (setUp) p.setChildProcessModifier(setUp);
    p.start(program, arguments);
    if (p.waitForStarted(waitMs)) {
        p.write(input);
        p.closeWriteChannel();
    }
    ProgramRun run;
    const bool ended = p.waitForFinished(waitMs);
    if (!ended) {
        p.kill();
        p.waitForFinished();
    }
    run.exitCode = ended && p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    run.out = p.readAllStandardOutput();
    run.err = QString::fromUtf8(p.readAllStandardError());
    for (const QByteArray& line : run.out.split('\n')) {
        if (line.trimmed().isEmpty()) continue;
        const QJsonDocument doc = QJsonDocument::fromJson(line);
        if (doc.isObject()) run.lines << doc.object();
    }
    return run;
}

QString testPhoto(const QString& name) {
    const QString dir = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    return dir + QStringLiteral("/cutlark/testdata/") + name;
}

bool waitUntil(const std::function<bool()>& done, int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > milliseconds) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

double intersectionOverUnion(int w, int h, const std::function<bool(int, int)>& first,
                             const std::function<bool(int, int)>& second) {
    qint64 both = 0, either = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool a = first(x, y), b = second(x, y);
            both += a && b;
            either += a || b;
        }
    return either ? double(both) / double(either) : 1.0;
}

void saveAndWait(CropModel& model, void (CropModel::*action)()) {
    (model.*action)();
    waitUntil([&] { return !model.savingMessage(); }, 60000);
}

} // namespace cutlark::test
