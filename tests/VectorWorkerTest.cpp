#include "TestSupport.h"

#include "model/Clipboard.h"
#include "model/CropModel.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMutex>
#include <QSemaphore>
#include <QThreadPool>

#include <atomic>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;
using Job = CropModel::VectorJob;
using Result = CropModel::VectorResult;

namespace {

// A tracer the test holds at a gate: it records every job and hands back a square.
struct GatedTracer {
    QSemaphore gate;
    QMutex mutex;
    QList<Job> jobs;
    std::atomic<bool> open{false};

    CropModel::VectorTracer tracer() {
        return [this](const Job& job) {
            {
                QMutexLocker lock(&mutex);
                jobs << job;
            }
            if (!open) gate.acquire();
            Result r;
            const VectorTrace square{
                {{{1, 1}, {5, 1}, {5, 5}, {1, 5}}}, QSizeF(job.image.width(), job.image.height()), {}};
            if (job.fullColor)
                r.colorTrace =
                    VectorColorTrace{{VectorColorLayer{1, 0, 0, square.contours, {}}}, square.size};
            else
                r.trace = square;
            r.preview = solid(job.image.width(), job.image.height(), Qt::red);
            return r;
        };
    }
    int count() {
        QMutexLocker lock(&mutex);
        return int(jobs.size());
    }
    Job last() {
        QMutexLocker lock(&mutex);
        return jobs.last();
    }
};

struct RecordingClipboard : Clipboard {
    QByteArray put;
    void putSvg(const QByteArray& svg) override { put = svg; }
};

class WorkerTest : public ::testing::Test {
protected:
    void SetUp() override {
        model.setVectorTracer(tracer.tracer());
        model.setPanels(&panels);
        model.open({savePng(m_dir, QStringLiteral("Poster.final.png"), coordinates(100, 60))});
    }
    void TearDown() override {
        tracer.open = true;
        tracer.gate.release(100);
        // A result handed back may start the next pass (or a neighbour's decode), which runs the
        // tracer this fixture owns: stop tracing, then drain until nothing is left on the pool.
        model.setVectorizeEnabled(false);
        do {
            QThreadPool::globalInstance()->waitForDone();
            QCoreApplication::processEvents();
        } while (QThreadPool::globalInstance()->activeThreadCount() > 0);
    }
    bool settle() {
        return waitUntil([&] { return !model.isVectorizing(); });
    }

    QTemporaryDir m_dir;
    GatedTracer tracer;
    ScriptedPanels panels;
    CropModel model;
};

} // namespace

TEST_F(WorkerTest, TenWritesDuringOneTraceMakeExactlyOneMore) {
    model.setVectorFullColor(true);
    model.setVectorizeEnabled(true);
    EXPECT_TRUE(model.isVectorizing());
    ASSERT_TRUE(waitUntil([&] { return tracer.count() == 1; }));
    for (int i = 1; i <= 10; ++i)
        model.setVectorTolerance(10.0 * i);
    tracer.gate.release(); // the first trace ends
    ASSERT_TRUE(waitUntil([&] { return tracer.count() == 2; }));
    EXPECT_EQ(tracer.last().params.tolerance, 100) << "the further trace sees the last value";
    EXPECT_TRUE(model.isVectorizing()) << "no flicker between chained traces";
    tracer.gate.release();
    ASSERT_TRUE(settle());
    QCoreApplication::processEvents();
    EXPECT_EQ(tracer.count(), 2);
    EXPECT_TRUE(model.vectorColorTrace());
    EXPECT_FALSE(model.vectorTrace());
    EXPECT_TRUE(model.hasVectorOutput());
    EXPECT_EQ(model.vectorDisplayImage().pixel(0, 0), qRgb(255, 0, 0))
        << "the preview stands in for the image";
}

TEST_F(WorkerTest, SettingsThatDoNotMatterStartNoTrace) {
    tracer.open = true;
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(settle());
    const int before = tracer.count();
    model.setVectorTolerance(80);  // full colour is off
    model.setVectorStrokeWidth(9); // silhouette style
    QCoreApplication::processEvents();
    EXPECT_FALSE(model.isVectorizing());
    EXPECT_EQ(tracer.count(), before);
    model.setVectorizeStyle(VectorizeStyle::outline);
    ASSERT_TRUE(settle());
    EXPECT_EQ(tracer.count(), before + 1);
    EXPECT_DOUBLE_EQ(tracer.last().strokeWidth, 0.9) << "thousandths of the long side: 100 × 9 / 1000";
}

TEST_F(WorkerTest, CurvesRetraceAnyTraceAndGapsOnlyAColourOne) {
    tracer.open = true;
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(settle());
    int before = tracer.count();
    model.setVectorStacked(true); // a silhouette has no layers to stack
    QCoreApplication::processEvents();
    EXPECT_EQ(tracer.count(), before);
    model.setVectorCurves(true);
    ASSERT_TRUE(settle());
    EXPECT_EQ(tracer.count(), before + 1);
    EXPECT_TRUE(tracer.last().params.curves);
    model.setVectorFullColor(true);
    ASSERT_TRUE(settle());
    before = tracer.count();
    model.setVectorStacked(true); // the same value: still a write, still a trace
    ASSERT_TRUE(settle());
    EXPECT_EQ(tracer.count(), before + 1);
    EXPECT_TRUE(tracer.last().params.stacked);
    EXPECT_TRUE(tracer.last().params.curves);
    // Each item keeps its own, and a synced queue carries them over.
    model.open({savePng(m_dir, QStringLiteral("second.png"), coordinates(50, 40))});
    const QUuid first = model.items()[0].id, second = model.items()[1].id;
    model.select(second);
    EXPECT_FALSE(model.vectorCurves());
    EXPECT_FALSE(model.vectorStacked());
    model.select(first);
    EXPECT_TRUE(model.vectorCurves());
    EXPECT_TRUE(model.vectorStacked());
    model.setSyncSettingsAcrossQueue(true);
    model.select(second);
    EXPECT_TRUE(model.vectorCurves());
    EXPECT_TRUE(model.vectorStacked());
}

TEST_F(WorkerTest, SwitchingOffDuringATraceDropsItsResult) {
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(waitUntil([&] { return tracer.count() == 1; }));
    model.setVectorizeEnabled(false);
    EXPECT_FALSE(model.vectorTrace());
    EXPECT_TRUE(model.vectorPreview().isNull());
    tracer.gate.release();
    ASSERT_TRUE(settle());
    QCoreApplication::processEvents();
    EXPECT_FALSE(model.vectorTrace()) << "the late result is dropped";
    EXPECT_FALSE(model.isVectorizing());
    EXPECT_EQ(model.vectorDisplayImage().cacheKey(), model.processedImage().cacheKey());
}

TEST_F(WorkerTest, OffAndOnDuringOneTracePublishesItThenTracesAgain) {
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(waitUntil([&] { return tracer.count() == 1; }));
    model.setVectorizeEnabled(false);
    model.setVectorizeEnabled(true);
    tracer.gate.release();
    ASSERT_TRUE(waitUntil([&] { return model.vectorTrace().has_value(); }));
    ASSERT_TRUE(waitUntil([&] { return tracer.count() == 2; }));
    tracer.gate.release();
    ASSERT_TRUE(settle());
}

TEST_F(WorkerTest, RemovingTheItemDuringATraceEndsQuietly) {
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(waitUntil([&] { return tracer.count() == 1; }));
    model.remove(model.active()->id);
    tracer.gate.release();
    ASSERT_TRUE(settle());
    EXPECT_FALSE(model.isVectorizing());
    EXPECT_TRUE(model.processedImage().isNull());
}

TEST_F(WorkerTest, ParametersFollowTheSettings) {
    EXPECT_DOUBLE_EQ(VectorSettings::minFeatureFracFor(0), 0.00003);
    EXPECT_NEAR(VectorSettings::minFeatureFracFor(25), 0.0001005, 1e-7);
    EXPECT_NEAR(VectorSettings::minFeatureFracFor(50), 0.0003366, 1e-7);
    EXPECT_NEAR(VectorSettings::minFeatureFracFor(75), 0.0011275, 1e-7);
    EXPECT_DOUBLE_EQ(VectorSettings::minFeatureFracFor(100), 0.003776776235382503);
    EXPECT_DOUBLE_EQ(VectorSettings::minFeatureFracFor(500), 0.003776776235382503);
    EXPECT_DOUBLE_EQ(VectorSettings::minFeatureFracFor(-5), 0.00003);
    EXPECT_EQ(VectorSettings::denoisePassesFor(0), 1) << "one median pass always runs";
    EXPECT_EQ(VectorSettings::denoisePassesFor(2.5), 3);
    EXPECT_EQ(VectorSettings::cleanupPassesFor(0), 0);
    EXPECT_EQ(VectorSettings::cleanupPassesFor(2.5), 3);
    EXPECT_DOUBLE_EQ(VectorSettings::outlineStrokeWidth(QSizeF(100, 40), 3), 0.5);
    EXPECT_DOUBLE_EQ(VectorSettings::outlineStrokeWidth(QSizeF(4000, 3000), 3), 12);

    tracer.open = true;
    model.setVectorFullColor(true);
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(settle());
    const Job job = tracer.last();
    EXPECT_TRUE(job.fullColor);
    EXPECT_EQ(job.params.tolerance, 45);
    EXPECT_DOUBLE_EQ(job.params.minFeatureFrac, 0.00003);
    EXPECT_EQ(job.params.denoisePasses, 2);
    EXPECT_EQ(job.params.cleanupPasses, 3);
}

TEST_F(WorkerTest, SvgFollowsTheStyleOfTheMomentAndExports) {
    model.setVectorizeEnabled(true);
    tracer.open = true;
    tracer.gate.release();
    ASSERT_TRUE(settle());
    ASSERT_TRUE(model.currentSVG());
    EXPECT_TRUE(model.currentSVG()->contains(QStringLiteral("fill=\"#111111\"")));
    model.setVectorizeStyle(VectorizeStyle::outline);
    EXPECT_TRUE(model.currentSVG()->contains(QStringLiteral("stroke-width=\"0.5\"")))
        << "at once, from the stored trace";
    ASSERT_TRUE(settle());

    // Export: proposes the source's stem with .svg; the confirmation is the bare file name.
    model.exportSVG(); // cancelled
    EXPECT_EQ(panels.proposedNames.last(), QStringLiteral("Poster.final.svg"));
    EXPECT_EQ(panels.saveTypes.last(), QStringLiteral("image/svg+xml"));
    EXPECT_FALSE(model.saveConfirmation());
    panels.saveAnswers.push_back(m_dir.filePath(QStringLiteral("out.svg")));
    model.exportSVG();
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("out.svg"));
    EXPECT_EQ(QString::fromUtf8(readBytes(m_dir.filePath(QStringLiteral("out.svg")))), *model.currentSVG());
    EXPECT_FALSE(model.items().front().saved) << "an export doesn't mark the item";

    panels.saveAnswers.push_back(m_dir.filePath(QStringLiteral("missing/out.svg")));
    model.exportSVG();
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Couldn’t write to “out.svg”."));
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("out.svg")) << "left alone";

    // A source without an extension proposes its name with .svg.
    EXPECT_EQ(CropModel::proposedDocumentName(m_dir.filePath(QStringLiteral("Scan")), QStringLiteral("svg")),
              QStringLiteral("Scan.svg"));
}

TEST_F(WorkerTest, CopyPutsTheSameBytesUnderBothTypes) {
    RecordingClipboard clipboard;
    model.setClipboard(&clipboard);
    model.copySVG();
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Nothing to vectorize."));
    model.exportSVG();
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Nothing to vectorize."));
    tracer.open = true;
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(settle());
    model.copySVG();
    EXPECT_EQ(clipboard.put, model.currentSVG()->toUtf8());
    EXPECT_FALSE(model.errorMessage());
    EXPECT_EQ(model.noticeMessage(), QStringLiteral("SVG copied to the clipboard."));
}

TEST_F(WorkerTest, StatusTextsFirstMatchWins) {
    EXPECT_EQ(model.vectorStatusText(),
              QStringLiteral("No clear shape to trace. Try turning on Remove background first."));
    model.setVectorFullColor(true);
    EXPECT_EQ(model.vectorStatusText(), QStringLiteral("No colors found to trace."));
    model.setVectorizeEnabled(true);
    EXPECT_EQ(model.vectorStatusText(), QStringLiteral("Tracing…"));
    tracer.open = true;
    tracer.gate.release();
    ASSERT_TRUE(settle());
    EXPECT_FALSE(model.vectorStatusText());

    model.setVectorTracer([](const Job&) {
        Result r;
        r.tooDetailed = true;
        return r;
    });
    model.setVectorFullColor(false);
    ASSERT_TRUE(settle());
    EXPECT_TRUE(model.vectorTooDetailed());
    EXPECT_EQ(model.vectorStatusText(),
              QStringLiteral("Too detailed for a single color — turn on Full color."));
}

TEST(WorkerReal, TheRealTracersRunBehindTheModel) {
    QTemporaryDir dir;
    CropModel model;
    QImage page = solid(300, 200, Qt::white);
    for (int y = 50; y < 150; ++y)
        for (int x = 100; x < 200; ++x)
            page.setPixelColor(x, y, Qt::black);
    model.open({savePng(dir, QStringLiteral("p.png"), page)});
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(waitUntil([&] { return !model.isVectorizing(); }));
    ASSERT_TRUE(model.vectorTrace());
    EXPECT_EQ(model.vectorTrace()->contours.size(), 1);
    EXPECT_EQ(model.vectorPreview().size(), QSize(300, 200));
    model.setVectorFullColor(true);
    ASSERT_TRUE(waitUntil([&] { return !model.isVectorizing(); }));
    ASSERT_TRUE(model.vectorColorTrace());
    EXPECT_EQ(model.vectorColorTrace()->layers.size(), 2);
    EXPECT_FALSE(model.vectorTrace()) << "at most one of the two is present";
}

TEST_F(WorkerTest, ATraceThatRunsOutOfMemoryEndsLikeOneThatFoundNothing) {
    int calls = 0;
    model.setVectorTracer([&calls](const Job&) -> Result {
        ++calls;
        throw std::bad_alloc();
    });
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(settle()) << "the worker doesn't hang on a failed trace";
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(model.vectorTrace());
    EXPECT_EQ(model.vectorStatusText(),
              QStringLiteral("No clear shape to trace. Try turning on Remove background first."));
    // And the next request traces again.
    model.setVectorizeStyle(VectorizeStyle::outline);
    ASSERT_TRUE(settle());
    EXPECT_EQ(calls, 2);
}
