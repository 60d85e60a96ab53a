#include "TestSupport.h"

#include "model/CropModel.h"

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;
using Field = CropModel::Field;

namespace {

class ModelTest : public ::testing::Test {
protected:
    // Opens `count` images of distinct sizes (40+i × 30) and returns their ids in queue order.
    QList<QUuid> openImages(int count, int w = 40, int h = 30) {
        QStringList paths;
        for (int i = 0; i < count; ++i)
            paths << savePng(m_dir, QStringLiteral("img%1.png").arg(i), coordinates(w + i, h));
        model.open(paths);
        QList<QUuid> ids;
        for (const auto& item : model.items())
            ids << item.id;
        return ids;
    }

    QTemporaryDir m_dir;
    CropModel model;
};

} // namespace

TEST_F(ModelTest, EveryWriteOfASettingNotifiesEvenWithTheSameValue) {
    openImages(1);
    const CropModel::Settings same = model.snapshotCurrentSettings();
    for (const QString& name : CropModel::Settings::names()) {
        ChangeCounter counter(model);
        ASSERT_TRUE(model.writeSetting(name, same));
        const Field field = Field(CropModel::Settings::names().indexOf(name) + int(Field::quarterTurns));
        EXPECT_EQ(counter.count(field), 1) << qPrintable(name);
    }
    EXPECT_FALSE(model.writeSetting(QStringLiteral("unknown"), same));
}

TEST_F(ModelTest, SettingsThatNeedNoSwitchRebuildOnceAlsoForAnUnchangedValue) {
    // Every write notifies and runs its hook, also a write of the same value: a setting that no
    // switch holds back (the switches themselves, the turn, the mirror) rebuilds, once.
    openImages(1);
    const CropModel::Settings same = model.snapshotCurrentSettings();
    int checked = 0;
    for (const SettingInfo& row : Settings::table()) {
        if (*row.switchName) continue;
        ChangeCounter counter(model);
        ASSERT_TRUE(model.writeSetting(QLatin1String(row.name), same));
        EXPECT_EQ(counter.rebuilds(), 1) << row.name;
        ++checked;
    }
    EXPECT_GE(checked, 10);
}

TEST_F(ModelTest, ConditionalHooksRebuildOnlyWhenTheFieldMatters) {
    openImages(1);
    auto rebuildsOf = [&](auto write) {
        ChangeCounter counter(model);
        write();
        return counter.rebuilds();
    };
    // Each field with its condition off, then on.
    EXPECT_EQ(rebuildsOf([&] { model.setManualCropRect(QRectF(0, 0, 0.5, 0.5)); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setThreshold(40); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setKeyThreshold(40); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setStrokeWidth(3); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setPadAmount(3); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setBackgroundKind(BackgroundKind::gradient); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setGradientAngle(10); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setResizeCanvas(true); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setBackgroundImageURL(QStringLiteral("x")); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setSyncSettingsAcrossQueue(false); }), 0);
    for (auto write :
         {+[](CropModel& m) { m.setVectorTolerance(3); }, +[](CropModel& m) { m.setVectorStrokeWidth(4); },
          +[](CropModel& m) { m.setVectorFullColor(true); }})
        EXPECT_EQ(rebuildsOf([&] { write(model); }), 0) << "vector settings retrace, never rebuild";

    model.setManualCropEnabled(true);
    model.setTrimEnabled(true);
    model.setStickerEnabled(true);
    model.setPaddingEnabled(true);
    model.setBackgroundEnabled(true);
    model.setResizeEnabled(true);
    EXPECT_EQ(rebuildsOf([&] { model.setManualCropRect(QRectF(0, 0, 0.5, 0.5)); }), 1);
    EXPECT_EQ(rebuildsOf([&] { model.setThreshold(40); }), 1);
    EXPECT_EQ(rebuildsOf([&] { model.setStrokeWidth(3); }), 1);
    EXPECT_EQ(rebuildsOf([&] { model.setPadAmount(3); }), 1);
    EXPECT_EQ(rebuildsOf([&] { model.setPadTop(3); }), 0) << "sides don't count while uniform";
    EXPECT_EQ(rebuildsOf([&] { model.setBackgroundColor(Qt::red); }), 0)
        << "the colour doesn't show on a gradient";
    EXPECT_EQ(rebuildsOf([&] { model.setGradientAngle(10); }), 1);
    EXPECT_EQ(rebuildsOf([&] { model.setResizeCanvas(true); }), 1);

    // Keying settings count only in white mode.
    model.setKeyWhiteEnabled(true);
    model.setBgRemovalMode(BGRemovalMode::subject);
    EXPECT_EQ(rebuildsOf([&] { model.setKeyThreshold(40); }), 0);
    EXPECT_EQ(rebuildsOf([&] { model.setKeyInternal(true); }), 0);
    model.setBgRemovalMode(BGRemovalMode::white);
    EXPECT_EQ(rebuildsOf([&] { model.setKeyThreshold(41); }), 1);
}

TEST_F(ModelTest, LeavingUniformPaddingCopiesTheAmountToEachSide) {
    openImages(1);
    model.setPadAmount(10);
    model.setPadTop(40);
    ChangeCounter counter(model);
    model.setPaddingUniform(false);
    EXPECT_EQ(counter.count(Field::padTop), 1);
    EXPECT_EQ(counter.count(Field::padLeft), 1);
    EXPECT_EQ(model.padTop(), 10);
    EXPECT_EQ(model.padRight(), 10);
    EXPECT_EQ(model.padBottom(), 10);
    EXPECT_EQ(model.padLeft(), 10);
    model.setPadLeft(5);
    model.setPaddingUniform(true);
    EXPECT_EQ(model.padLeft(), 5) << "turning it on again copies nothing";
    model.setPaddingUniform(true);
    EXPECT_EQ(model.padTop(), 10);
}

TEST_F(ModelTest, SelectingSwapsSettingsAndClearsTheStatus) {
    const auto ids = openImages(2);
    ASSERT_EQ(model.activeID(), ids[0]);
    model.setQuarterTurns(1);
    model.select(ids[1]);
    EXPECT_EQ(model.quarterTurns(), 0) << "the second image comes with its own defaults";
    EXPECT_EQ(model.items()[0].settingsSnapshot.quarterTurns, 1);
    model.select(ids[0]);
    EXPECT_EQ(model.quarterTurns(), 1);
    EXPECT_EQ(model.processedImage().size(), QSize(30, 40));

    // Selecting the active item is a no-op; another one clears the texts.
    saveAndWait(model, &CropModel::saveAsNewFile); // no panels: a cancelled panel says nothing
    model.remove(QUuid::createUuid());
    model.open({m_dir.filePath(QStringLiteral("missing.png"))});
    ASSERT_TRUE(model.errorMessage());
    ChangeCounter counter(model);
    model.select(ids[0]);
    EXPECT_EQ(counter.count(Field::activeID), 0);
    EXPECT_TRUE(model.errorMessage());
    model.select(ids[1]);
    EXPECT_FALSE(model.errorMessage());
    EXPECT_FALSE(model.saveConfirmation());
    EXPECT_EQ(counter.count(Field::collageRects), 1) << "switching looks for a collage";
}

TEST_F(ModelTest, SyncedQueueKeepsTheLiveSettingsAcrossSwitches) {
    const auto ids = openImages(3);
    model.select(ids[1]);
    model.setMirrored(true); // item 1's own setting, captured when left
    model.select(ids[0]);
    model.setSyncSettingsAcrossQueue(true);
    model.setQuarterTurns(1);
    model.select(ids[2]);
    EXPECT_EQ(model.quarterTurns(), 1) << "the other image shows rotated alike";
    EXPECT_EQ(model.processedImage().size(), QSize(30, 42));
    EXPECT_EQ(model.items()[2].settingsSnapshot.quarterTurns, 0) << "no snapshot is written while synced";

    model.setSyncSettingsAcrossQueue(false);
    model.select(ids[1]);
    EXPECT_EQ(model.quarterTurns(), 0);
    EXPECT_TRUE(model.mirrored()) << "back with the snapshot it had before the synced period";
    model.select(ids[2]);
    EXPECT_EQ(model.quarterTurns(), 1) << "item 2 kept the live settings it had when sync went off";
}

TEST_F(ModelTest, RemovingFollowsTheQueueRules) {
    auto ids = openImages(3);
    model.select(ids[1]);
    model.setQuarterTurns(2);
    {
        ChangeCounter counter(model);
        model.remove(ids[0]);
        EXPECT_EQ(model.activeID(), ids[1]) << "removing an item in front keeps the active one";
        EXPECT_EQ(counter.rebuilds(), 0);
        EXPECT_EQ(model.quarterTurns(), 2);
    }
    model.select(ids[2]);
    model.setMirrored(true);
    model.select(ids[1]);
    model.setQuarterTurns(3);
    model.select(ids[2]);
    model.remove(ids[2]);
    EXPECT_EQ(model.activeID(), ids[1]) << "the new last item";
    EXPECT_EQ(model.quarterTurns(), 3) << "its settings come in";
    EXPECT_FALSE(model.mirrored());

    model.setPadAmount(7);
    model.remove(ids[1]);
    EXPECT_TRUE(model.items().empty());
    EXPECT_FALSE(model.activeID());
    EXPECT_TRUE(model.processedImage().isNull());
    EXPECT_FALSE(model.activeContentRect());
    EXPECT_TRUE(model.collageRects().isEmpty());
    EXPECT_EQ(model.padAmount(), 7) << "the live settings stay";
    EXPECT_FALSE(model.allSaved()) << "an empty queue isn't all saved";
}

TEST_F(ModelTest, RemovingTheActiveItemInTheMiddleActivatesTheOneThatMovesUp) {
    const auto ids = openImages(3);
    model.select(ids[1]);
    model.remove(ids[1]);
    EXPECT_EQ(model.activeID(), ids[2]);
    EXPECT_EQ(model.activePosition(), 2);
}

TEST_F(ModelTest, FlipsMirrorTheResultAndUndoThemselves) {
    openImages(1, 5, 3);
    model.setQuarterTurns(1);
    const QImage turned = model.processedImage();
    model.flipHorizontal();
    EXPECT_EQ(model.processedImage(), turned.mirrored(true, false));
    model.flipHorizontal();
    EXPECT_EQ(model.quarterTurns(), 1);
    EXPECT_FALSE(model.mirrored());
    model.flipVertical();
    EXPECT_EQ(model.processedImage(), turned.mirrored(false, true));
    model.flipVertical();
    EXPECT_EQ(model.quarterTurns(), 1);
    EXPECT_FALSE(model.mirrored());
}

TEST_F(ModelTest, SetManualCropTurnsTheCropOn) {
    openImages(1, 40, 20);
    model.setManualCrop(QRectF(0.5, 0, 0.5, 0.5));
    EXPECT_TRUE(model.manualCropEnabled());
    EXPECT_EQ(model.processedImage().size(), QSize(20, 10));
    EXPECT_EQ(qRed(model.processedImage().pixel(0, 0)), 20);
}

TEST_F(ModelTest, ApplyingASnapshotRunsEveryHookButRebuildsOnce) {
    openImages(1, 300, 200);
    CropModel::Settings snapshot;
    snapshot.keyWhiteEnabled = true;
    snapshot.bgRemovalMode = BGRemovalMode::white;
    snapshot.paddingUniform = false;
    snapshot.padAmount = 9;
    snapshot.padTop = 1;
    snapshot.padRight = 2;
    snapshot.padBottom = 3;
    snapshot.padLeft = 4;
    snapshot.resizeEnabled = true;
    snapshot.resizeWidth = 150;
    snapshot.resizeHeight = 150;

    bool flagSeenDuringHooks = false;
    QObject::connect(&model, &CropModel::changed, &model, [&](Field f) {
        if (f == Field::keyWhiteEnabled) flagSeenDuringHooks = model.isApplyingSettingsSnapshot();
    });
    ChangeCounter counter(model);
    model.applySettings(snapshot);
    EXPECT_TRUE(flagSeenDuringHooks);
    EXPECT_FALSE(model.isApplyingSettingsSnapshot());
    EXPECT_EQ(counter.rebuilds(), 1);
    EXPECT_EQ(counter.count(Field::bgRemovalMode), 2) << "picked by itself first, then the snapshot's";
    EXPECT_EQ(counter.count(Field::padTop), 2) << "copied from the amount, then written";
    EXPECT_EQ(model.padTop(), 1);
    EXPECT_EQ(model.padLeft(), 4);
    // The lock links the stored sizes to the aspect of the image being left (300 × 200).
    EXPECT_EQ(model.resizeHeight(), 150);
    EXPECT_EQ(model.resizeWidth(), 225);
    EXPECT_EQ(model.snapshotCurrentSettings().resizeWidth, 225);
}

TEST_F(ModelTest, ResizeLinksFollowTheAspectOfTheImage) {
    openImages(1, 300, 200);
    ChangeCounter counter(model);
    model.setResizeWidth(100);
    EXPECT_EQ(model.resizeHeight(), 67);
    EXPECT_EQ(counter.rebuilds(), 0) << "resize is off";
    model.setResizeHeight(100);
    EXPECT_EQ(model.resizeWidth(), 150);

    model.setResizeLockAspect(false);
    model.setResizeWidth(10);
    EXPECT_EQ(model.resizeHeight(), 100);
    model.setResizeLockAspect(true);
    EXPECT_EQ(model.resizeHeight(), 7) << "locking links the height to the width";

    counter.reset();
    model.setResizeEnabled(true);
    EXPECT_EQ(model.resizeWidth(), 300) << "turning resize on starts from the current size";
    EXPECT_EQ(model.resizeHeight(), 200);
    EXPECT_EQ(counter.rebuilds(), 1) << "one rebuild for the turn, none for the seeded fields";
    counter.reset();
    model.setResizeEnabled(true);
    EXPECT_EQ(counter.count(Field::resizeWidth), 0) << "no seed unless it went from off to on";
}

TEST_F(ModelTest, LinksDoNothingWithoutAnImage) {
    model.setResizeWidth(100);
    EXPECT_EQ(model.resizeHeight(), 1024);
    model.setResizeEnabled(true);
    EXPECT_EQ(model.resizeWidth(), 100);
}

TEST_F(ModelTest, KeyingOnPicksWhiteWithoutASubjectNetwork) {
    int computed = 0;
    model.setCutoutService({[] { return false; },
                            [&](const QImage&, const SubjectNetwork&) {
                                ++computed;
                                return std::optional<QImage>();
                            },
                            [] { return QString(); }, nullptr, nullptr});
    openImages(1);
    model.setBgRemovalMode(BGRemovalMode::subject);
    model.setKeyWhiteEnabled(true);
    EXPECT_EQ(model.bgRemovalMode(), BGRemovalMode::white);
    model.setBgRemovalMode(BGRemovalMode::subject);
    model.setKeyWhiteEnabled(true);
    EXPECT_EQ(model.bgRemovalMode(), BGRemovalMode::subject) << "a mode chosen by hand survives a second on";
    EXPECT_FALSE(model.isDetectingSubject());
    EXPECT_FALSE(model.subjectNotFound());
    EXPECT_EQ(computed, 0) << "no cutout is ever started";
}
