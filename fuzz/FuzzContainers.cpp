// The walks over file structure that run before any decoder: the PNG chunk list and the HEIF boxes
// that give a grid's canvas. Whatever the bytes, they end, and what the PNG walk keeps is a PNG that
// walks clean and is never bigger than what came in.
#include "io/ImageCodecs.h"
#include "io/PngChunks.h"

#include <QBuffer>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace cutlark;
    QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    // Half the runs start as a PNG, so that the walk gets past the signature.
    if (size > 0 && (data[0] & 1))
        bytes.replace(0, qMin<qsizetype>(8, bytes.size()), QByteArray("\x89PNG\r\n\x1a\n", 8));
    QBuffer device(&bytes);
    device.open(QIODevice::ReadOnly);
    const PngChunks::Walk walk = PngChunks::walk(device);
    if (walk.verdict == PngChunks::Verdict::filtered) {
        if (walk.bytes.size() > bytes.size() || !PngChunks::isPng(walk.bytes)) std::abort();
        QByteArray again = walk.bytes;
        QBuffer second(&again);
        second.open(QIODevice::ReadOnly);
        if (PngChunks::walk(second).verdict != PngChunks::Verdict::clean) std::abort();
    }
    (void)ImageCodecs::heifDerivedCanvases(data, size);
    return 0;
}
