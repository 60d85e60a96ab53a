// Saves that wait for the picture to be final and write off the main thread: what is written, when
// the saved mark and the advance come, which item a press acts on, and a write that fails late.
#include "FakeCutouts.h"
#include "TestSupport.h"

#include "io/ImageFile.h"
#include "model/CropModel.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QThreadPool>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

class SaveInBackgroundTest : public FakeCutoutsTest {
protected:
    // Three photo-like pictures (no white edges), the first active.
    QStringList openThree() {
        const QStringList paths = {savePng(m_dir, QStringLiteral("img1.png"), coordinates(40, 30)),
                                   savePng(m_dir, QStringLiteral("img2.png"), coordinates(44, 30)),
                                   savePng(m_dir, QStringLiteral("img3.png"), coordinates(48, 30))};
        model.open(paths);
        return paths;
    }
    int savedCount() const {
        int n = 0;
        for (const auto& item : model.items())
            n += item.saved;
        return n;
    }
};

} // namespace

TEST_F(SaveInBackgroundTest, ASaveDuringDetectionWaitsAndWritesTheCutout) {
    const QStringList paths = openThree();
    model.setSyncSettingsAcrossQueue(true);
    model.setKeyWhiteEnabled(true);
    ASSERT_EQ(model.bgRemovalMode(), BGRemovalMode::subject);
    ASSERT_TRUE(model.isDetectingSubject());
    const QByteArray before = readBytes(paths[0]);
    const QByteArray second = readBytes(paths[1]);

    // Three presses while the subject is being cut out: one save, of the first picture.
    for (int i = 0; i < 3; ++i) {
        model.saveOverOriginal();
        QCoreApplication::processEvents();
    }
    EXPECT_EQ(model.savingMessage(), QStringLiteral("Waiting for the subject to be cut out to save it…"));
    EXPECT_EQ(readBytes(paths[0]), before) << "nothing written before the cutout";
    EXPECT_EQ(savedCount(), 0);
    EXPECT_EQ(model.activeID(), model.items()[0].id);

    fake.release();
    ASSERT_TRUE(waitUntil([&] { return !model.savingMessage(); }));
    const auto written = ImageFile::load(paths[0]);
    ASSERT_TRUE(written);
    EXPECT_EQ(qAlpha(written->image.pixel(0, 15)), 0) << "the cut-out half is written transparent";
    EXPECT_EQ(qAlpha(written->image.pixel(39, 15)), 255);
    EXPECT_EQ(savedCount(), 1);
    EXPECT_TRUE(model.items()[0].saved);
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("img1.png"));
    EXPECT_EQ(model.activeID(), model.items()[1].id) << "the queue moved on once, after the write";
    EXPECT_TRUE(model.isDetectingSubject())
        << "the second picture's cutout is under way, nothing waits on it";
    EXPECT_FALSE(model.savingMessage());
    EXPECT_EQ(readBytes(paths[1]), second);
    EXPECT_FALSE(model.items()[1].saved);
}

TEST_F(SaveInBackgroundTest, AWaitingSaveIsDroppedWhenAnotherPictureIsShown) {
    const QStringList paths = openThree();
    model.setKeyWhiteEnabled(true);
    ASSERT_TRUE(model.isDetectingSubject());
    const QByteArray first = readBytes(paths[0]);
    const QByteArray third = readBytes(paths[2]);
    model.saveOverOriginal();
    ASSERT_TRUE(model.savingMessage());
    model.select(model.items()[2].id);
    EXPECT_FALSE(model.savingMessage()) << "the press was for the picture that was shown";
    fake.open = true;
    fake.release(10);
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::processEvents();
    QCoreApplication::processEvents();
    EXPECT_EQ(readBytes(paths[0]), first);
    EXPECT_EQ(readBytes(paths[2]), third) << "never the picture the queue moved to";
    EXPECT_EQ(savedCount(), 0);
}

TEST_F(SaveInBackgroundTest, TheWriteEndsBeforeTheMarkAndAPressActsOnThePictureShown) {
    fake.open = true;
    const QStringList paths = openThree();
    const QUuid first = model.items()[0].id, third = model.items()[2].id;
    model.setPaddingEnabled(true);
    model.saveOverOriginal();
    // Asked, not yet written: the mark, the confirmation and the advance wait for the write.
    EXPECT_EQ(model.savingMessage(), QStringLiteral("Saving “img1.png”…"));
    EXPECT_FALSE(model.items()[0].saved);
    EXPECT_EQ(model.activeID(), first);
    model.saveOverOriginal(); // pressed again during the write: one write
    // The person goes on to the third picture and saves it while the first is being written.
    model.select(third);
    model.saveOverOriginal();
    ASSERT_TRUE(waitUntil([&] { return !model.savingMessage(); }));
    EXPECT_TRUE(model.items()[0].saved);
    EXPECT_TRUE(model.items()[2].saved);
    EXPECT_FALSE(model.items()[1].saved);
    EXPECT_EQ(ImageFile::load(paths[0])->image.size(), model.items()[0].buffer.image().size());
    // Whichever write ends first, the queue ends on the one picture left unsaved, never left behind.
    EXPECT_EQ(model.activeID(), model.items()[1].id);
}

TEST_F(SaveInBackgroundTest, AWriteThatFailsLeavesTheItemUnsavedAndSaysWhy) {
    fake.open = true;
    QDir(m_dir.path()).mkdir(QStringLiteral("gone"));
    const QString path = savePng(m_dir, QStringLiteral("gone/photo.png"), coordinates(40, 30));
    model.open({path});
    // The folder goes away after opening: the write can only fail, on the worker.
    ASSERT_TRUE(QDir(m_dir.filePath(QStringLiteral("gone"))).removeRecursively());
    model.saveOverOriginal();
    EXPECT_EQ(model.savingMessage(), QStringLiteral("Saving “photo.png”…"));
    ASSERT_TRUE(waitUntil([&] { return !model.savingMessage(); }));
    EXPECT_EQ(model.errorMessage(), QStringLiteral("Couldn’t write to “photo.png”."));
    EXPECT_FALSE(model.items()[0].saved);
    EXPECT_FALSE(model.saveConfirmation());
    EXPECT_EQ(model.activeID(), model.items()[0].id);
    // Once the folder is back the same save goes through.
    QDir(m_dir.path()).mkdir(QStringLiteral("gone"));
    saveAndWait(model);
    EXPECT_TRUE(model.items()[0].saved);
    EXPECT_FALSE(model.errorMessage());
    EXPECT_TRUE(QFileInfo::exists(path));
}

TEST_F(SaveInBackgroundTest, ClosingTheWindowWaitsForTheFileBeingWritten) {
    fake.open = true;
    const QString path = savePng(m_dir, QStringLiteral("photo.png"), coordinates(300, 200));
    const QByteArray before = readBytes(path);
    {
        CropModel closing;
        closing.open({path});
        closing.setMirrored(true);
        closing.saveOverOriginal();
        ASSERT_TRUE(closing.savingMessage());
    } // gone with the write under way
    const QByteArray after = readBytes(path);
    EXPECT_NE(after, before);
    const auto written = ImageFile::loadFromData(after, {});
    ASSERT_TRUE(written) << "a whole file, not a torn one";
    EXPECT_EQ(written->image.size(), QSize(300, 200));
    QCoreApplication::processEvents(); // the queued result finds no model and is dropped
}
