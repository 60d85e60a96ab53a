// What the program writes outside the user's files stays out of other local users' reach.
#include "SecondUser.h"
#include "TestSupport.h"

#include "support/PrivateDir.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QUuid>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

mode_t modeOf(const QString& path) {
    struct stat st {};
    lstat(QFile::encodeName(path).constData(), &st);
    return st.st_mode & 0777;
}

} // namespace

TEST(PrivateDir, FreshFoldersAndFilesAreTheUsersAloneAndLinksAreNeverFollowed) {
    const QString folder = PrivateDir::create(QStringLiteral("CutlarkDrops"));
    ASSERT_FALSE(folder.isEmpty());
    EXPECT_TRUE(QFileInfo(folder).fileName().startsWith(QStringLiteral("CutlarkDrops-")));
    EXPECT_EQ(QFileInfo(folder).absolutePath(), QDir(PrivateDir::base()).absolutePath());
    EXPECT_EQ(modeOf(folder), 0700u);
    const QString second = PrivateDir::create(QStringLiteral("CutlarkDrops"));
    EXPECT_NE(second, folder) << "every call a new folder";
    PrivateDir::remove(second);
    EXPECT_FALSE(QFileInfo::exists(second));

    ASSERT_TRUE(PrivateDir::writeNew(folder, QStringLiteral("Dropped Image.png"), "picture"));
    EXPECT_EQ(modeOf(QDir(folder).filePath(QStringLiteral("Dropped Image.png"))), 0600u);
    EXPECT_FALSE(PrivateDir::writeNew(folder, QStringLiteral("Dropped Image.png"), "again"))
        << "never over a file";
    EXPECT_FALSE(PrivateDir::writeNew(folder, QStringLiteral("../escape"), "x"));

    // A link planted where a file is to go is refused, and what it points at stays as it was.
    QTemporaryDir home;
    const QString precious = home.filePath(QStringLiteral("notes.txt"));
    writeBytes(precious, "mine");
    ASSERT_TRUE(QFile::link(precious, QDir(folder).filePath(QStringLiteral("trap.png"))));
    EXPECT_FALSE(PrivateDir::writeNew(folder, QStringLiteral("trap.png"), "overwritten"));
    EXPECT_EQ(readBytes(precious), QByteArray("mine"));

    // Removing takes the folder and the link, never what the link points at.
    PrivateDir::remove(folder);
    EXPECT_FALSE(QFileInfo::exists(folder));
    EXPECT_EQ(readBytes(precious), QByteArray("mine"));

    // A folder open to others, or a link to a private one, is no private folder.
    QTemporaryDir open;
    chmod(QFile::encodeName(open.path()).constData(), 0755);
    EXPECT_TRUE(PrivateDir::ensure(open.path()).isEmpty());
    const QString mine = PrivateDir::create(QStringLiteral("mine"));
    const QString link = home.filePath(QStringLiteral("link"));
    ASSERT_TRUE(QFile::link(mine, link));
    EXPECT_TRUE(PrivateDir::ensure(link).isEmpty());
    EXPECT_EQ(PrivateDir::ensure(mine), mine);
    PrivateDir::remove(mine);

    // The runtime folder counts only when it is private.
    const QByteArray saved = qgetenv("XDG_RUNTIME_DIR");
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(open.path()));
    EXPECT_TRUE(PrivateDir::runtimeDir().isEmpty());
    chmod(QFile::encodeName(open.path()).constData(), 0700);
    EXPECT_EQ(PrivateDir::runtimeDir(), QDir::cleanPath(open.path()));
    EXPECT_EQ(PrivateDir::base(), QDir::cleanPath(open.path()));
    if (saved.isNull())
        qunsetenv("XDG_RUNTIME_DIR");
    else
        qputenv("XDG_RUNTIME_DIR", saved);
}

TEST(PrivateDir, AnotherUserCanNeitherPrepareNorTakeOverTheFolders) {
    const QString why = secondUser::unavailableBecause();
    if (!why.isEmpty()) GTEST_SKIP() << qPrintable(why);
    const QByteArray saved = qgetenv("XDG_RUNTIME_DIR");
    qunsetenv("XDG_RUNTIME_DIR"); // the shared temporary folder, where other users can write

    // The old drop folder, made world-writable by someone else ahead of time with a link in it.
    const QString shared = QDir(QDir::tempPath()).filePath(QStringLiteral("CutlarkDrops"));
    QTemporaryDir home;
    const QString precious = home.filePath(QStringLiteral("notes.txt"));
    writeBytes(precious, "mine");
    chmod(QFile::encodeName(home.path()).constData(), 0755);
    chmod(QFile::encodeName(precious).constData(), 0644);
    const bool planted =
        secondUser::run(
            QStringLiteral("mkdir -p '%1' && chmod 777 '%1' && ln -sf '%2' '%1/Dropped Image.png'")
                .arg(shared, precious)) == 0;
    const QString folder = PrivateDir::create(QStringLiteral("CutlarkDrops"));
    ASSERT_FALSE(folder.isEmpty());
    EXPECT_NE(QFileInfo(folder).absolutePath(), shared) << "nothing goes into a folder someone else made";
    ASSERT_TRUE(PrivateDir::writeNew(folder, QStringLiteral("Dropped Image.png"), "picture"));
    EXPECT_EQ(readBytes(precious), QByteArray("mine"));
    // The other user can't read the drop or put anything beside it.
    EXPECT_NE(secondUser::run(QStringLiteral("cat '%1/Dropped Image.png'").arg(folder)), 0);
    EXPECT_NE(secondUser::run(QStringLiteral("touch '%1/x'").arg(folder)), 0);
    PrivateDir::remove(folder);

    // A folder another user made where ours would be is refused, not used.
    const QString taken =
        QDir(QDir::tempPath())
            .filePath(QStringLiteral("cutlark-test-") + QUuid::createUuid().toString(QUuid::WithoutBraces));
    ASSERT_EQ(secondUser::run(QStringLiteral("mkdir -m 700 '%1'").arg(taken)), 0);
    EXPECT_TRUE(PrivateDir::ensure(taken).isEmpty());
    secondUser::run(QStringLiteral("rm -rf '%1'").arg(taken));
    if (planted) secondUser::run(QStringLiteral("rm -rf '%1'").arg(shared));
    if (!saved.isNull()) qputenv("XDG_RUNTIME_DIR", saved);
}
