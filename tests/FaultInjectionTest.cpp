// Every way a write can fail, for every operation that writes: nothing the user already had changes,
// the message is the one the user sees, the queue stays as it was and no temporary file is left.

#include "TestSupport.h"

#include "model/CropModel.h"
#include "support/AtomicFile.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <csignal>
#include <sys/resource.h>

#include <gtest/gtest.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

/// How a write is made to fail: one step refused by the seam, or a real disk that fills up.
struct Failure {
    const char* name;
    std::optional<AtomicFile::Step> step; ///< none: the disk is full
};

const Failure kFailures[] = {
    {"open", AtomicFile::Step::open}, {"write", AtomicFile::Step::write},
    {"sync", AtomicFile::Step::sync}, {"rename", AtomicFile::Step::rename},
    {"full disk", std::nullopt},
};

/// While alive, every file write of this process beyond `bytes` fails the way a full disk does
/// (the kernel refuses to grow any file past the size limit).
class DiskFull {
public:
    explicit DiskFull(rlim_t bytes) {
        m_oldHandler = std::signal(SIGXFSZ, SIG_IGN); // a write past the limit fails instead of killing us
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit limit = m_old;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~DiskFull() {
        setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_oldHandler);
    }
    DiskFull(const DiskFull&) = delete;
    DiskFull& operator=(const DiskFull&) = delete;

private:
    rlimit m_old{};
    void (*m_oldHandler)(int) = nullptr;
};

/// A busy picture that compresses badly, so that every file written is far past the "disk's" room.
QImage noisy(int w, int h, quint32 seed) {
    QImage image(w, h, QImage::Format_RGB32);
    quint32 state = seed;
    for (int y = 0; y < h; ++y) {
        auto* row = reinterpret_cast<quint32*>(image.scanLine(y));
        for (int x = 0; x < w; ++x) {
            state = state * 1664525u + 1013904223u;
            row[x] = 0xff000000u | (state >> 8);
        }
    }
    return image;
}

/// A white sheet holding two busy pictures with a wide gutter: a collage of two.
QImage collageSheet() {
    QImage sheet = solid(400, 200, Qt::white).convertToFormat(QImage::Format_RGB32);
    const QImage a = noisy(150, 150, 1), b = noisy(150, 150, 2);
    for (int y = 0; y < 150; ++y) {
        memcpy(sheet.scanLine(25 + y) + 20 * 4, a.constScanLine(y), 150 * 4);
        memcpy(sheet.scanLine(25 + y) + 230 * 4, b.constScanLine(y), 150 * 4);
    }
    return sheet;
}

class FaultInjectionTest : public ::testing::TestWithParam<Failure> {
protected:
    void SetUp() override {
        model.setPanels(&panels);
        model.setSynchronousWork(true);
        source = savePng(m_dir, QStringLiteral("photo.png"), noisy(120, 80, 7));
        other = savePng(m_dir, QStringLiteral("second.png"), noisy(60, 40, 8));
        ASSERT_FALSE(source.isEmpty());
        model.open({source, other});
        model.setMirrored(true);
        ASSERT_EQ(model.items().size(), 2u);
    }
    void TearDown() override { AtomicFile::setFaultInjector({}); }

    /// Runs `write` with the parameter's failure in force; a full disk leaves `room` bytes per file.
    void failing(const std::function<void()>& write, rlim_t room = 512) {
        const Failure failure = GetParam();
        if (failure.step) {
            const AtomicFile::Step step = *failure.step;
            AtomicFile::setFaultInjector([step](AtomicFile::Step s, const QString&) { return s != step; });
            write();
            AtomicFile::setFaultInjector({});
        } else {
            DiskFull full(room);
            write();
        }
    }

    /// Every file of the folder tree with its bytes.
    QMap<QString, QByteArray> snapshot() const {
        QMap<QString, QByteArray> files;
        QDirIterator it(m_dir.path(), QDir::Files | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            files.insert(QDir(m_dir.path()).relativeFilePath(path), readBytes(path));
        }
        return files;
    }

    /// What the user sees of the queue.
    struct QueueState {
        std::vector<QString> urls;
        std::vector<bool> saved;
        std::optional<QUuid> active;
        bool operator==(const QueueState&) const = default;
    };
    QueueState queue() const {
        QueueState state;
        for (const auto& item : model.items()) {
            state.urls.push_back(item.path);
            state.saved.push_back(item.saved);
        }
        state.active = model.activeID();
        return state;
    }

    /// After a failed write: the message, every file as it was, the queue as it was, no confirmation.
    void expectNothingLost(const QString& message, const QMap<QString, QByteArray>& files,
                           const QueueState& before) {
        EXPECT_EQ(model.errorMessage(), message);
        EXPECT_EQ(snapshot(), files) << "old files byte for byte, and no temporary left beside them";
        EXPECT_EQ(queue(), before);
        EXPECT_FALSE(model.saveConfirmation());
    }

    QTemporaryDir m_dir;
    ScriptedPanels panels;
    CropModel model;
    QString source, other;
};

} // namespace

TEST_P(FaultInjectionTest, SavingOverTheOriginal) {
    const auto files = snapshot();
    const auto before = queue();
    const QImage shown = model.processedImage();
    failing([&] { saveAndWait(model); });
    expectNothingLost(QStringLiteral("Couldn’t write to “photo.png”."), files, before);
    EXPECT_EQ(model.processedImage(), shown) << "the edit is still there to save again";

    saveAndWait(model); // and once the disk is back, the same save goes through
    EXPECT_EQ(model.saveConfirmation(), QStringLiteral("photo.png"));
    EXPECT_NE(snapshot(), files);
}

TEST_P(FaultInjectionTest, SavingAsANewFileOverAnExistingOne) {
    const QString target = savePng(m_dir, QStringLiteral("chosen.png"), noisy(30, 30, 9));
    const auto files = snapshot();
    const auto before = queue();
    panels.saveAnswers.push_back(target);
    failing([&] { saveAndWait(model, &CropModel::saveAsNewFile); });
    expectNothingLost(QStringLiteral("Couldn’t write to “chosen.png”."), files, before);
}

TEST_P(FaultInjectionTest, ExportingSVGOverAnExistingOne) {
    QImage logo = solid(100, 80, Qt::transparent);
    for (int y = 20; y < 60; ++y)
        for (int x = 30; x < 70; ++x)
            put(logo, x, y, 0, 0, 0, 255);
    model.open({savePng(m_dir, QStringLiteral("logo.png"), logo)});
    model.setVectorizeEnabled(true);
    ASSERT_TRUE(model.currentSVG())
        << model.vectorStatusText().value_or(QStringLiteral("no status")).toStdString();
    ASSERT_TRUE(writeBytes(m_dir.filePath(QStringLiteral("photo.svg")), QByteArray("<svg>old</svg>")));
    const auto files = snapshot();
    const auto before = queue();
    panels.saveAnswers.push_back(m_dir.filePath(QStringLiteral("photo.svg")));
    failing([&] { model.exportSVG(); }, 8); // the SVG is a few hundred bytes: a fuller disk
    expectNothingLost(QStringLiteral("Couldn’t write to “photo.svg”."), files, before);
}

TEST_P(FaultInjectionTest, SplittingACollage) {
    const QString sheet = savePng(m_dir, QStringLiteral("sheet.png"), collageSheet());
    model.open({sheet});
    ASSERT_EQ(model.collageRects().size(), 2);
    QDir(m_dir.path()).mkdir(QStringLiteral("out"));
    ASSERT_TRUE(writeBytes(m_dir.filePath(QStringLiteral("out/sheet-1.png")), QByteArray("mine")));
    const auto files = snapshot();
    const auto before = queue();
    panels.folderAnswers.push_back(m_dir.filePath(QStringLiteral("out")));
    failing([&] { model.splitCollage(); });
    expectNothingLost(QStringLiteral("Couldn’t write the split images."), files, before); // sheet-1.png too
    EXPECT_EQ(model.collageRects().size(), 2);

    panels.folderAnswers.push_back(m_dir.filePath(QStringLiteral("out")));
    model.splitCollage();
    EXPECT_EQ(model.noticeMessage(), QStringLiteral("Split into 2 images."));
    EXPECT_EQ(readBytes(m_dir.filePath(QStringLiteral("out/sheet-1.png"))), QByteArray("mine"));
    EXPECT_TRUE(QFileInfo::exists(m_dir.filePath(QStringLiteral("out/sheet-1-2.png"))));
}

INSTANTIATE_TEST_SUITE_P(EveryFailure, FaultInjectionTest, ::testing::ValuesIn(kFailures),
                         [](const ::testing::TestParamInfo<Failure>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });
