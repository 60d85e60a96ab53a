// The command line against what a careless or hostile user can hand it: pipes and devices named
// like pictures, names that aren't UTF-8, files it must not write over, broken manifests, pictures
// far larger than their files, too little memory, a missing or damaged network, work that can't be
// done. Each case runs the real program, since
// what is checked is what a person at a terminal sees: the exit code, the JSON and the files.
#include "CliProgram.h"
#include "HostileFiles.h"

#include "io/ImageFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QPainter>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

class HostileRunTest : public CliFixture {
protected:
    QByteArray nativePath(const char* name) const { return QFile::encodeName(m_dir.path()) + '/' + name; }
};

} // namespace

TEST_F(HostileRunTest, PipesAndDevicesNamedLikePicturesAreNamedNotWaitedOn) {
    // A pipe nobody writes to: opening it for reading waited forever.
    ASSERT_EQ(::mkfifo(QFile::encodeName(path(QStringLiteral("pipe.png"))).constData(), 0600), 0);
    savePng(m_dir, QStringLiteral("real.png"), coordinates(20, 10));
    for (const QStringList& args : {QStringList{QStringLiteral("info"), path(QStringLiteral("pipe.png"))},
                                    QStringList{QStringLiteral("process"), QStringLiteral("-o"),
                                                path(QStringLiteral("out")), m_dir.path()},
                                    QStringList{QStringLiteral("info"), QStringLiteral("/dev/zero")}}) {
        const ProgramRun run = cli(args);
        ASSERT_EQ(run.exitCode, 1) << qPrintable(args.join(QLatin1Char(' '))) << qPrintable(run.err);
        bool named = false;
        for (const QJsonObject& line : run.lines) {
            const QString reason = line.value(QStringLiteral("reason")).toString();
            if (reason.isEmpty()) continue;
            named = true;
            EXPECT_TRUE(reason ==
                            QStringLiteral("not a regular file (a named pipe); only files are opened") ||
                        reason == QStringLiteral("not a regular file (a device); only files are opened"))
                << qPrintable(reason);
        }
        EXPECT_TRUE(named);
    }
    EXPECT_TRUE(
        QFileInfo::exists(path(QStringLiteral("out/%1/real-out.png").arg(QDir(m_dir.path()).dirName()))))
        << "the real picture is done";
}

TEST_F(HostileRunTest, NamesThatArentUtf8AreProcessedUnderTheirOwnBytes) {
    // "café.jpg" as Latin-1 wrote it: Qt can't name it, so it was skipped without a word.
    const QByteArray latin1 = nativePath("caf\xe9.png");
    const QByteArray bytes = ImageFile::encode(coordinates(30, 20), QStringLiteral("image/png"));
    const int fd = ::open(latin1.constData(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, bytes.constData(), size_t(bytes.size())), bytes.size());
    ::close(fd);

    // Found in a folder, and named directly (as the shell passes it: the raw bytes).
    ProgramRun run =
        cli({QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("paddingEnabled=true"),
             QStringLiteral("--set"), QStringLiteral("padAmount=2"), m_dir.path()});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_TRUE(run.out.contains("caf\\udce9.png"))
        << "escaped as Python's surrogateescape reads it: " << run.out.constData();
    EXPECT_EQ(run.lines[0].value(QStringLiteral("width")).toInt(), 34);
    struct stat st {};
    EXPECT_EQ(::stat(nativePath("caf\xe9-out.png").constData(), &st), 0) << "the result under the same bytes";

    const ProgramRun named =
        runProgram(QStringLiteral("/bin/sh"),
                   {QStringLiteral("-c"), QStringLiteral("exec '%1' info \"$(printf '%2/caf\\351.png')\"")
                                              .arg(QStringLiteral(CUTLARK_CLI_PATH), m_dir.path())});
    ASSERT_EQ(named.exitCode, 0) << qPrintable(named.err);
    ASSERT_EQ(named.lines.size(), 1);
    EXPECT_EQ(named.lines[0].value(QStringLiteral("width")).toInt(), 30);
}

TEST_F(HostileRunTest, ResultsNeverGoOverAnInputOrAnExistingFileUnasked) {
    const QString picture = savePng(m_dir, QStringLiteral("v.png"), coordinates(24, 24));
    const QByteArray before = readBytes(picture);
    const QString notes = path(QStringLiteral("notes.txt"));
    writeBytes(notes, "my notes\n");
    for (const QString& target : {picture, notes}) {
        const ProgramRun run = cli({QStringLiteral("trace"), QStringLiteral("-o"), target, picture});
        EXPECT_EQ(run.exitCode, 1) << qPrintable(target);
        EXPECT_TRUE(run.err.contains(QStringLiteral("nothing was written"))) << qPrintable(run.err);
    }
    EXPECT_EQ(readBytes(picture), before);
    EXPECT_EQ(readBytes(notes), QByteArray("my notes\n"));
    // Over the input even with --overwrite: never. Over another file when asked: yes.
    EXPECT_EQ(
        cli({QStringLiteral("trace"), QStringLiteral("--overwrite"), QStringLiteral("-o"), picture, picture})
            .exitCode,
        1);
    EXPECT_EQ(readBytes(picture), before);
    const ProgramRun asked =
        cli({QStringLiteral("trace"), QStringLiteral("--overwrite"), QStringLiteral("-o"), notes, picture});
    EXPECT_EQ(asked.exitCode, 0) << qPrintable(asked.err);
    EXPECT_TRUE(readBytes(notes).contains("<svg"));
}

TEST_F(HostileRunTest, RewritingInPlaceKeepsOwnerGroupAndMode) {
    const QString picture = savePng(m_dir, QStringLiteral("shared.png"), coordinates(20, 20));
    const QByteArray native = QFile::encodeName(picture);
    ASSERT_EQ(::chmod(native.constData(), 0640), 0);
    const bool root = ::getuid() == 0;
    // As root, the file belongs to someone else (nobody): root saving it must not take it over.
    if (root) {
        ASSERT_EQ(::chown(native.constData(), 65534, 65534), 0);
    }
    struct stat before {};
    ASSERT_EQ(::stat(native.constData(), &before), 0);
    const ProgramRun run = cli({QStringLiteral("process"), QStringLiteral("--in-place"),
                                QStringLiteral("--set"), QStringLiteral("paddingEnabled=true"),
                                QStringLiteral("--set"), QStringLiteral("padAmount=3"), picture});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    struct stat after {};
    ASSERT_EQ(::stat(native.constData(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino) << "replaced whole, as a save over an original is";
    EXPECT_EQ(after.st_mode & 07777, 0640u);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_EQ(ImageFile::load(picture)->image.width(), 26);
}

TEST_F(HostileRunTest, AManifestLineCutShortIsEndedBeforeTheNextRecord) {
    const QString picture = savePng(m_dir, QStringLiteral("a.png"), coordinates(10, 10));
    const QString manifest = path(QStringLiteral("run.jsonl"));
    writeBytes(manifest, "{\"input\":\"/elsewhere/b.png\",\"settings\":\"00\",\"sta"); // killed mid-line
    const ProgramRun run = cli({QStringLiteral("process"), QStringLiteral("--manifest"), manifest, picture});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    const QList<QByteArray> lines = readBytes(manifest).split('\n');
    ASSERT_EQ(lines.size(), 3) << readBytes(manifest).constData(); // broken, record, and the end
    EXPECT_TRUE(lines[2].isEmpty());
    const QJsonObject record = QJsonDocument::fromJson(lines[1]).object();
    EXPECT_EQ(record.value(QStringLiteral("status")).toString(), QStringLiteral("done"));
    EXPECT_EQ(record.value(QStringLiteral("input")).toString(), picture);
}

TEST_F(HostileRunTest, WhatCantBeDoneOrOpenedIsSaidWithWhatToDo) {
    // A resize inside the allowed range but beyond any memory: written at its size, and said.
    const QString picture = savePng(m_dir, QStringLiteral("p.png"), coordinates(40, 30));
    ProgramRun run =
        cli({QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("resizeEnabled=true"),
             QStringLiteral("--set"), QStringLiteral("resizeLockAspect=false"), QStringLiteral("--set"),
             QStringLiteral("resizeWidth=100000"), QStringLiteral("--set"),
             QStringLiteral("resizeHeight=100000"), picture});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_EQ(run.lines[0].value(QStringLiteral("notice")).toString(),
              QStringLiteral(
                  "the resize to 100000 × 100000 couldn’t be done (not enough memory); written at 40 × 30"));

    // A picture out of all proportion to its file: refused, saying how to open it, and opened so.
    const QString bomb = path(QStringLiteral("bomb.bmp"));
    writeBytes(bomb, hostile::bmpRle(6400, 6400));
    run = cli({QStringLiteral("info"), bomb});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_EQ(
        run.lines[0].value(QStringLiteral("reason")).toString(),
        QStringLiteral("“bomb.bmp” holds 6400 × 6400 pixels (41 megapixels) in a file of 1080 bytes, far "
                       "more than a file that size holds; to open it anyway, give --max-megapixels 41"));
    run = cli({QStringLiteral("info"), QStringLiteral("--max-megapixels"), QStringLiteral("41"), bomb});
    EXPECT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_EQ(cli({QStringLiteral("info"), QStringLiteral("--max-megapixels=0"), bomb}).exitCode, 2);

    // Standard input that isn't a picture is refused before the rest of it is read.
    run = piped({QStringLiteral("process"), QStringLiteral("--stdout"), QStringLiteral("-")},
                QByteArray(8 << 20, '\0'));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err.trimmed(),
              QStringLiteral("cutlark-cli: -: not an image type cutlark opens (application/octet-stream)"));
    EXPECT_TRUE(run.out.isEmpty());
}

TEST_F(HostileRunTest, SubjectModeWithoutTheNetworkFailsAndSaysHowToGetIt) {
    QTemporaryDir emptyCache;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CACHE_HOME"), emptyCache.path());
    const QString photo = savePng(m_dir, QStringLiteral("photo.png"), coordinates(40, 30));
    const CliRun run =
        cli({QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("keyWhiteEnabled=true"),
             QStringLiteral("--set"), QStringLiteral("bgRemovalMode=subject"), photo},
            environment);
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_TRUE(
        run.lines[0].value(QStringLiteral("error")).toString().contains(QStringLiteral("scripts/setup.sh")))
        << qPrintable(run.err);
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("photo-out.png"))));
}

TEST_F(HostileRunTest, RunningOutOfMemoryNeverEndsTheProcessWithASignal) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's run-time needs terabytes of address space: no limit can be set";
#endif
    // A photo-sized sticker under address-space limits from too small to enough: each run refuses
    // the picture, skips a stage or writes it, and always ends by itself with 0 or 1.
    QImage sheet = solid(3000, 2000, Qt::white);
    QPainter(&sheet).fillRect(1000, 600, 1000, 800, Qt::red);
    const QString big = savePng(m_dir, QStringLiteral("big.png"), sheet);
    for (qint64 megabytes : {300, 450, 600, 800}) {
        const CliRun run = cli({QStringLiteral("process"), QStringLiteral("--overwrite"),
                                QStringLiteral("--set"), QStringLiteral("stickerEnabled=true"),
                                QStringLiteral("--set"), QStringLiteral("strokeWidth=40"),
                                QStringLiteral("--set"), QStringLiteral("keyWhiteEnabled=true"), big},
                               QProcessEnvironment::systemEnvironment(), megabytes << 20);
        EXPECT_TRUE(run.exitCode == 0 || run.exitCode == 1)
            << megabytes << " MB: " << run.exitCode << " " << qPrintable(run.err);
    }
    // The GIF and HEIF writers gather their output in callbacks from C: a refused allocation there
    // is the library's own error, not an exception thrown through its frames (which aborts).
    for (const char* format : {"gif", "heic"}) {
        for (qint64 megabytes : {200, 260, 330}) {
            const CliRun run = cli({QStringLiteral("process"), QStringLiteral("--overwrite"),
                                    QStringLiteral("--format"), QLatin1String(format), big},
                                   QProcessEnvironment::systemEnvironment(), megabytes << 20);
            EXPECT_TRUE(run.exitCode == 0 || run.exitCode == 1)
                << format << " at " << megabytes << " MB: " << run.exitCode << " " << qPrintable(run.err);
        }
    }
}

TEST_F(HostileRunTest, ADamagedNetworkOrRuntimeInTheCacheIsNamedNeverCrashedOn) {
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    const QString network = cache + QStringLiteral("/cutlark/isnet-medium-fp32.onnx");
    const QString runtime = cache + QStringLiteral("/cutlark/libonnxruntime.so.1");
    ASSERT_TRUE(QFileInfo::exists(network) && QFileInfo::exists(runtime)) << "the set-up fetches both";
    QTemporaryDir other;
    ASSERT_TRUE(QDir(other.path()).mkpath(QStringLiteral("cutlark")));
    const QString ownNetwork = other.filePath(QStringLiteral("cutlark/isnet-medium-fp32.onnx"));
    const QString ownRuntime = other.filePath(QStringLiteral("cutlark/libonnxruntime.so.1"));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CACHE_HOME"), other.path());
    const QString photo = savePng(m_dir, QStringLiteral("photo.png"), coordinates(64, 48));
    const QStringList subject = {QStringLiteral("process"),
                                 QStringLiteral("--overwrite"),
                                 QStringLiteral("--set"),
                                 QStringLiteral("keyWhiteEnabled=true"),
                                 QStringLiteral("--set"),
                                 QStringLiteral("bgRemovalMode=subject"),
                                 photo};

    // A runtime cut short (it made the loader fault): the network runs without it, and says why.
    ASSERT_TRUE(QFile::link(network, ownNetwork));
    QFile whole(runtime);
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    writeBytes(ownRuntime, whole.read(1 << 20));
    CliRun run = cli(subject, environment);
    EXPECT_EQ(run.exitCode, 0) << qPrintable(run.err);
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("photo-out.png"))));
#if !defined(__SANITIZE_THREAD__) // ThreadSanitizer's builds never load ONNX Runtime
    EXPECT_EQ(run.lines[0].value(QStringLiteral("notice")).toString(),
              QStringLiteral("“%1” is damaged (it isn’t the file Cutlark fetched); delete it and run "
                             "scripts/setup.sh (or ./run.sh) to fetch it")
                  .arg(ownRuntime));
#endif

    // Random bytes for the runtime (they smashed the loader's stack) and a network cut short (it
    // read as "not installed"): the network's file is named, nothing is written, nothing crashes.
    QByteArray noise(300000, Qt::Uninitialized);
    for (qsizetype i = 0; i < noise.size(); ++i)
        noise[i] = char((i * 2654435761u) >> 13);
    writeBytes(ownRuntime, noise);
    ASSERT_TRUE(QFile::remove(ownNetwork));
    QFile fullNetwork(network);
    ASSERT_TRUE(fullNetwork.open(QIODevice::ReadOnly));
    writeBytes(ownNetwork, fullNetwork.read(2 << 20));
    ASSERT_TRUE(QFile::remove(path(QStringLiteral("photo-out.png"))));
    run = cli(subject, environment);
    EXPECT_EQ(run.exitCode, 1) << qPrintable(run.err);
    ASSERT_EQ(run.lines.size(), 1);
    EXPECT_EQ(run.lines[0].value(QStringLiteral("error")).toString(),
              QStringLiteral("subject mode can’t run: “%1” is damaged (it isn’t the file Cutlark fetched); "
                             "delete it and run scripts/setup.sh (or ./run.sh) to fetch it")
                  .arg(ownNetwork));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("photo-out.png"))));
}
