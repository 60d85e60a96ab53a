// Writes the hostile files at the sizes that hurt, for measuring decoders against them, or small
// ones of the same shapes (seeds for the fuzzers):
//   make-hostile-files DIR [--small]
#include "HostileFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdio>

namespace {
QImage flat(int w, int h, QRgb colour) {
    QImage image(w, h, QImage::Format_RGB32);
    image.fill(colour);
    return image;
}
} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const bool small = argc == 3 && qstrcmp(argv[2], "--small") == 0;
    if (argc != 2 && !small) {
        std::fprintf(stderr, "usage: make-hostile-files DIR [--small]\n");
        return 2;
    }
    using namespace cutlark::test::hostile;
    const QDir dir(QString::fromLocal8Bit(argv[1]));
    QDir().mkpath(dir.path());
    const QList<QPair<QString, QByteArray>> files = small ? QList<QPair<QString, QByteArray>>{
        {QStringLiteral("text.png"), pngWithTextChunks(3, 1000)},
        {QStringLiteral("claim.png"), pngClaimingChunk(100)},
        {QStringLiteral("scans.jpg"), jpegWithRepeatedScans(16, 16, 3)},
        {QStringLiteral("grid.heic"), heicGrid(2, 2, 16)},
    } : QList<QPair<QString, QByteArray>>{
        {QStringLiteral("text-bomb.png"), pngWithTextChunks(200, 7'900'000)},
        {QStringLiteral("length-claim.png"), pngClaimingChunk(0x7fffffff)},
        {QStringLiteral("scan-bomb.jpg"), jpegWithRepeatedScans(8000, 8000, 20000)},
        {QStringLiteral("grid-bomb.heic"), heicGrid(91, 91, 256)},
        {QStringLiteral("grid-90.heic"), heicGrid(90, 90, 256)},
        {QStringLiteral("grid-itself.heic"), heicGrid(8, 8, 64, std::nullopt, std::nullopt, true)},
        {QStringLiteral("text-497.png"), pngWithTextChunks(497, 4'000'000)},
        {QStringLiteral("canvas-16383.webp"), animatedWebp(QSize(16383, 16383), QSize(1, 1))},
        {QStringLiteral("animated-6000.webp"), animatedWebp(QSize(6000, 6000), QSize(600, 400))},
        {QStringLiteral("rle-16000.bmp"), bmpRle(16000, 16000)},
        {QStringLiteral("flat-16000.png"), flatPng(16000, 16000)},
        {QStringLiteral("rle-6320.bmp"), bmpRle(6320, 6320)},
        {QStringLiteral("grey-icc.jpg"), jpegWithProfile(flat(6, 4, qRgb(129, 71, 112)), greyProfile())},
        {QStringLiteral("xmp-150000.png"), pictureWithXmp("png", xmpPacket(150000))},
        {QStringLiteral("xmp-150000.webp"), pictureWithXmp("webp", xmpPacket(150000))},
        {QStringLiteral("xmp-150000.tiff"), pictureWithXmp("tiff", xmpPacket(150000))},
        {QStringLiteral("xmp-150000.heic"), pictureWithXmp("heic", xmpPacket(150000))},
        {QStringLiteral("xmp-4000.png"), pictureWithXmp("png", xmpPacket(4000))},
        {QStringLiteral("flat-6320.png"), flatPng(6320, 6320)},
        {QStringLiteral("claims-39000.jpg"), jpegClaimingSize(39000, 39000)},
    };
    for (const auto& [name, bytes] : files) {
        QFile file(dir.filePath(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) return 1;
        std::printf("%s\t%lld bytes\n", qPrintable(file.fileName()), static_cast<long long>(bytes.size()));
    }
    return 0;
}
