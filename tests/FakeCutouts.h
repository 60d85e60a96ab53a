#pragma once

#include "TestSupport.h"

#include "model/CropModel.h"

#include <QCoreApplication>
#include <QImage>
#include <QSemaphore>
#include <QString>
#include <QTemporaryDir>
#include <QThreadPool>

#include <atomic>
#include <cstring>
#include <optional>

#include <gtest/gtest.h>

namespace cutlark::test {

// A cutout service the test controls: each computation waits at the gate until released, and hands
// back the source with its left half cleared (its right half, for a network other than the
// default; or nothing, when told so).
struct FakeCutouts {
    QSemaphore gate;
    std::atomic<int> calls{0};
    std::atomic<bool> findsNothing{false};
    std::atomic<bool> open{false};
    std::atomic<int> prepared{0};
    QString problem;       // what the service says is wrong with its network; set before use
    SubjectNetwork chosen; // the network the model last chose

    CropModel::CutoutService service() {
        return {[] { return true; },
                [this](const QImage& source, const SubjectNetwork& network) -> std::optional<QImage> {
                    ++calls;
                    if (!open) gate.acquire();
                    if (findsNothing) return std::nullopt;
                    QImage cut = source.convertToFormat(QImage::Format_RGBA8888_Premultiplied);
                    const size_t half = size_t(cut.width() / 2);
                    const size_t from = network.path.isEmpty() ? 0 : size_t(cut.width()) - half;
                    for (int y = 0; y < cut.height(); ++y)
                        std::memset(cut.scanLine(y) + 4 * from, 0, half * 4);
                    return cut;
                },
                [this] { return problem; }, [this] { ++prepared; },
                [this](const SubjectNetwork& network) { chosen = network; }};
    }
    void release(int n = 1) { gate.release(n); }
};

/// A model with the fake as its cutout service, and a folder for its files. Every computation a test
/// started ends, and every save is written, before the fake goes away.
class FakeCutoutsTest : public ::testing::Test {
protected:
    void SetUp() override { model.setCutoutService(fake.service()); }
    void TearDown() override {
        fake.open = true;
        fake.release(100);
        QThreadPool::globalInstance()->waitForDone();
        waitUntil([&] { return !model.savingMessage(); });
        QCoreApplication::processEvents();
    }
    QTemporaryDir m_dir;
    FakeCutouts fake;
    CropModel model;
};

} // namespace cutlark::test
