// Decoding arbitrary bytes through the same code the app uses, then building the item's buffer.
#include "engines/CropEngine.h"
#include "io/ImageFile.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    if (auto loaded = cutlark::ImageFile::loadFromData(bytes)) {
        if (auto buffer = cutlark::CropEngine::Buffer::make(loaded->image)) (void)buffer->pixels()[0];
    }
    return 0;
}
