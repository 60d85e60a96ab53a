#pragma once

#include "model/CropModel.h"

#include <QImage>
#include <QSemaphore>
#include <QString>

#include <atomic>
#include <cstring>
#include <optional>

namespace cutlark::test {

// A cutout service the test controls: each computation waits at the gate until released, and hands
// back the source with its left half cleared (or nothing, when told so).
struct FakeCutouts {
    QSemaphore gate;
    std::atomic<int> calls{0};
    std::atomic<bool> findsNothing{false};
    std::atomic<bool> open{false};
    std::atomic<int> prepared{0};
    QString problem; // what the service says is wrong with its network; set before use

    CropModel::CutoutService service() {
        return {[] { return true; },
                [this](const QImage& source) -> std::optional<QImage> {
                    ++calls;
                    if (!open) gate.acquire();
                    if (findsNothing) return std::nullopt;
                    QImage cut = source.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
                    for (int y = 0; y < cut.height(); ++y)
                        std::memset(cut.scanLine(y), 0, size_t(cut.width() / 2) * 4);
                    return cut;
                },
                [this] { return problem; }, [this] { ++prepared; }};
    }
    void release(int n = 1) { gate.release(n); }
};

} // namespace cutlark::test
