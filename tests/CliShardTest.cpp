// Batches over many processes and machines: slices, manifests, resumed runs, and the recipe of
// docs/scale.md run as printed. Each case runs the real program.
#include "CliProgram.h"

#include "cli/Shard.h"
#include "io/ImageFile.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QPainter>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

using namespace cutlark;
using namespace cutlark::test;

namespace {

class CliShardTest : public CliFixture {};

} // namespace

TEST_F(CliShardTest, ShardsPartitionTheBatchAndAResumedRunFinishesWhatAKilledOneLeft) {
    QDir(m_dir.path()).mkdir(QStringLiteral("in"));
    QStringList names;
    for (int i = 0; i < 12; ++i) {
        names << QStringLiteral("p%1.png").arg(i);
        savePng(m_dir, QStringLiteral("in/") + names.back(), coordinates(60 + i, 40));
    }
    const QString in = path(QStringLiteral("in"));
    const QStringList look = {QStringLiteral("process"), QStringLiteral("--set=stickerEnabled=true"),
                              QStringLiteral("--jobs=1")};
    const auto outputs = [&](const QString& folder) { return pngResults(path(folder)); };
    const CliRun whole = cli(look + QStringList{QStringLiteral("-o"), path(QStringLiteral("one")), in});
    ASSERT_EQ(whole.exitCode, 0) << whole.err.toStdString();
    ASSERT_EQ(outputs(QStringLiteral("one")).size(), 12);

    // Three slices: disjoint, together everything, and the same bytes as one run.
    QStringList seen;
    QMap<int, QStringList> slices;
    for (int k = 0; k < 3; ++k) {
        const CliRun run = cli(look + QStringList{QStringLiteral("--shard"), QStringLiteral("%1/3").arg(k),
                                                  QStringLiteral("-o"), path(QStringLiteral("sliced")), in});
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        for (const QJsonObject& line : run.lines)
            slices[k] << QFileInfo(line.value(QStringLiteral("input")).toString()).fileName();
        seen << slices[k];
    }
    seen.sort();
    QStringList all = names;
    all.sort();
    EXPECT_EQ(seen, all) << "each input in exactly one slice";
    EXPECT_EQ(outputs(QStringLiteral("sliced")), outputs(QStringLiteral("one")));
    // Adding inputs moves none of the others to another slice.
    savePng(m_dir, QStringLiteral("in/added.png"), coordinates(30, 30));
    const CliRun again = cli(look + QStringList{QStringLiteral("--shard=1/3"), QStringLiteral("-o"),
                                                path(QStringLiteral("again")), in});
    QStringList after;
    for (const QJsonObject& line : again.lines)
        after << QFileInfo(line.value(QStringLiteral("input")).toString()).fileName();
    after.removeAll(QStringLiteral("added.png"));
    EXPECT_EQ(after, slices[1]);
    QFile::remove(path(QStringLiteral("in/added.png")));

    // Killed part-way (as soon as the manifest holds a line), then resumed: the union is the one
    // run's bytes, and no input is recorded done twice.
    const QString manifest = path(QStringLiteral("done.jsonl"));
    QProcess p;
    p.start(QStringLiteral(CUTLARK_CLI_PATH),
            look + QStringList{QStringLiteral("--manifest"), manifest, QStringLiteral("-o"),
                               path(QStringLiteral("killed")), in});
    ASSERT_TRUE(p.waitForStarted());
    QElapsedTimer waited;
    waited.start();
    while (QFileInfo(manifest).size() == 0 && waited.elapsed() < 60000 && p.state() == QProcess::Running)
        QThread::msleep(2);
    ::kill(pid_t(p.processId()), SIGKILL);
    p.waitForFinished();
    const CliRun resumed = cli(look + QStringList{QStringLiteral("--resume"), manifest, QStringLiteral("-o"),
                                                  path(QStringLiteral("killed")), in});
    ASSERT_EQ(resumed.exitCode, 0) << resumed.err.toStdString();
    int skipped = 0;
    for (const QJsonObject& line : resumed.lines)
        skipped += line.value(QStringLiteral("skipped")).toString() == QLatin1String("done");
    EXPECT_GE(skipped, 1) << "what the killed run recorded isn't done again";
    EXPECT_EQ(outputs(QStringLiteral("killed")), outputs(QStringLiteral("one")));
    QMap<QString, int> doneCount;
    countDone(manifest, doneCount);
    EXPECT_EQ(doneCount.size(), 12);
    for (auto it = doneCount.cbegin(); it != doneCount.cend(); ++it)
        EXPECT_EQ(it.value(), 1) << it.key().toStdString();

    // Other settings are other work: nothing is skipped.
    const CliRun other =
        cli({QStringLiteral("process"), QStringLiteral("--set=paddingEnabled=true"),
             QStringLiteral("--resume"), manifest, QStringLiteral("-o"), path(QStringLiteral("other")), in});
    for (const QJsonObject& line : other.lines)
        EXPECT_FALSE(line.contains(QStringLiteral("skipped")));
    EXPECT_EQ(outputs(QStringLiteral("other")).size(), 12);
    const CliRun asWebp =
        cli(look + QStringList{QStringLiteral("--format=webp"), QStringLiteral("--resume"), manifest,
                               QStringLiteral("-o"), path(QStringLiteral("webp")), in});
    ASSERT_EQ(asWebp.lines.size(), 12);
    EXPECT_EQ(asWebp.exitCode, 0);
    for (const QJsonObject& line : asWebp.lines)
        EXPECT_FALSE(line.contains(QStringLiteral("skipped"))) << "another type is other work too";
    // Slices that make no sense are usage errors.
    for (const char* bad : {"3/3", "-1/3", "1/0", "a/b", "1", "+1/3"})
        EXPECT_EQ(
            cli({QStringLiteral("process"), QStringLiteral("--shard"), QLatin1String(bad), in}).exitCode, 2)
            << bad;
}

TEST_F(CliShardTest, APhotoAddedBeforeAResumeGetsAResultOfItsOwn) {
    // a/img1 a/img2 b/img3, then a/img3 arrives: it took b/img3's result name and was recorded done.
    savePng(m_dir, QStringLiteral("cat/a/img1.png"), solid(10, 10, Qt::red));
    savePng(m_dir, QStringLiteral("cat/a/img2.png"), solid(11, 10, Qt::red));
    savePng(m_dir, QStringLiteral("cat/b/img3.png"), solid(12, 10, Qt::blue));
    const QString manifest = path(QStringLiteral("m.jsonl"));
    const QStringList run = {QStringLiteral("process"),     QStringLiteral("--set=paddingEnabled=true"),
                             QStringLiteral("--resume"),    manifest,
                             QStringLiteral("-o"),          path(QStringLiteral("out")),
                             path(QStringLiteral("cat/a")), path(QStringLiteral("cat/b"))};
    const CliRun first = cli(run);
    ASSERT_EQ(first.exitCode, 0) << qPrintable(first.err);
    EXPECT_EQ(field(first, "output"), (QStringList{path(QStringLiteral("out/a/img1-out.png")),
                                                   path(QStringLiteral("out/a/img2-out.png")),
                                                   path(QStringLiteral("out/b/img3-out.png"))}))
        << "each folder named keeps its place below -o";
    const QByteArray b3 = readBytes(path(QStringLiteral("out/b/img3-out.png")));

    savePng(m_dir, QStringLiteral("cat/a/img3.png"), solid(13, 10, Qt::green));
    const CliRun second = cli(run);
    ASSERT_EQ(second.exitCode, 0) << qPrintable(second.err);
    // What the manifest records is said first, then the new photo's result.
    EXPECT_EQ(field(second, "skipped"), (QStringList{"done", "done", "done", ""}));
    EXPECT_EQ(second.lines[3].value(QStringLiteral("input")).toString(),
              path(QStringLiteral("cat/a/img3.png")));
    EXPECT_EQ(second.lines[3].value(QStringLiteral("output")).toString(),
              path(QStringLiteral("out/a/img3-out.png")));
    EXPECT_EQ(ImageFile::load(path(QStringLiteral("out/a/img3-out.png")))->image.width(), 13 + 80);
    EXPECT_EQ(readBytes(path(QStringLiteral("out/b/img3-out.png"))), b3) << "b/img3's result untouched";
    // Every manifest line true: each done input has its own result, and it is there.
    QSet<QString> outputs;
    for (const QJsonObject& line : manifestLines(manifest)) {
        ASSERT_EQ(line.value(QStringLiteral("status")).toString(), QStringLiteral("done"));
        const QString output = line.value(QStringLiteral("output")).toString();
        EXPECT_TRUE(QFileInfo::exists(output)) << qPrintable(output);
        outputs.insert(output);
    }
    EXPECT_EQ(outputs.size(), 4);

    // Files named directly that would share a result are both refused, each naming the other.
    const CliRun same = cli({QStringLiteral("process"), QStringLiteral("-o"), path(QStringLiteral("flat")),
                             path(QStringLiteral("cat/a/img3.png")), path(QStringLiteral("cat/b/img3.png")),
                             path(QStringLiteral("cat/a/img1.png"))});
    EXPECT_EQ(same.exitCode, 1);
    ASSERT_EQ(same.lines.size(), 3);
    EXPECT_TRUE(same.lines[0]
                    .value(QStringLiteral("error"))
                    .toString()
                    .contains(path(QStringLiteral("cat/b/img3.png"))));
    EXPECT_TRUE(same.lines[1]
                    .value(QStringLiteral("error"))
                    .toString()
                    .contains(path(QStringLiteral("cat/a/img3.png"))));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("flat/img3-out.png"))))
        << "nothing written for either";
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("flat/img1-out.png"))));
    // A JPEG whose result may become a PNG meets the PNG of the same stem only when transparency
    // is possible.
    writeImage(solid(20, 10, Qt::white), path(QStringLiteral("shot.jpg")), "jpeg");
    writeImage(solid(30, 10, Qt::white), path(QStringLiteral("shot.png")), "png");
    const QStringList pair = {QStringLiteral("-o"), path(QStringLiteral("pair")),
                              path(QStringLiteral("shot.jpg")), path(QStringLiteral("shot.png"))};
    EXPECT_EQ(cli(QStringList{QStringLiteral("process"), QStringLiteral("--set=paddingEnabled=true")} + pair)
                  .exitCode,
              1);
    const CliRun plain = cli(QStringList{QStringLiteral("process")} + pair);
    EXPECT_EQ(plain.exitCode, 0);
    EXPECT_EQ(field(plain, "output"), (QStringList{path(QStringLiteral("pair/shot-out.jpg")),
                                                   path(QStringLiteral("pair/shot-out.png"))}));
}

TEST_F(CliShardTest, OnlyAResultThisRunWroteIsRecordedDone) {
    const QString photos = folder(QStringLiteral("photos"));
    for (int i = 0; i < 3; ++i)
        savePng(m_dir, QStringLiteral("photos/p%1.png").arg(i), coordinates(80, 40));
    const auto resized = [&](int width, const QStringList& extra) {
        return cli(QStringList{QStringLiteral("process"), QStringLiteral("--set=resizeEnabled=true"),
                               QStringLiteral("--set=resizeWidth=%1").arg(width), QStringLiteral("-o"),
                               path(QStringLiteral("out"))} +
                   extra + QStringList{photos});
    };
    ASSERT_EQ(resized(64, {}).exitCode, 0);
    // Other settings beside results from before: left as they are, and recorded as skipped, not
    // done. The manifest's folder is made.
    const QString manifest = path(QStringLiteral("manifests/run.jsonl"));
    const CliRun skipping = resized(16, {QStringLiteral("--manifest"), manifest});
    ASSERT_EQ(skipping.exitCode, 0) << qPrintable(skipping.err);
    EXPECT_EQ(field(skipping, "skipped"), (QStringList{"exists", "exists", "exists"}));
    QString err = skipping.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("0 written, 3 skipped, 0 failed"));
    for (const QJsonObject& line : manifestLines(manifest))
        EXPECT_EQ(line.value(QStringLiteral("status")).toString(), QStringLiteral("skipped"));
    // Resumed with those settings: the manifest decides, not the files, so each is made again.
    const CliRun resumed = resized(16, {QStringLiteral("--resume"), manifest});
    ASSERT_EQ(resumed.exitCode, 0) << qPrintable(resumed.err);
    EXPECT_EQ(field(resumed, "skipped"), (QStringList{"", "", ""}));
    EXPECT_EQ(ImageFile::load(path(QStringLiteral("out/photos/p0-out.png")))->image.width(), 16);
    // And again: now they are done.
    EXPECT_EQ(field(resized(16, {QStringLiteral("--resume"), manifest}), "skipped"),
              (QStringList{"done", "done", "done"}));
    // A resume into a folder that isn't there yet makes it (the recipes' manifests/{}.jsonl).
    const CliRun fresh =
        resized(16, {QStringLiteral("--resume"), path(QStringLiteral("new/deeper/0.jsonl"))});
    EXPECT_EQ(fresh.exitCode, 0) << qPrintable(fresh.err);
    EXPECT_EQ(manifestLines(path(QStringLiteral("new/deeper/0.jsonl"))).size(), 3);
}

TEST_F(CliShardTest, ManifestSumsUpTheShardsManifests) {
    const QString in = folder(QStringLiteral("in"));
    for (int i = 0; i < 9; ++i)
        savePng(m_dir, QStringLiteral("in/p%1.png").arg(i), coordinates(20 + i, 20));
    writeBytes(path(QStringLiteral("in/broken.png")), "\x89PNG\r\n\x1a\nnot really");
    QStringList manifests;
    for (int k = 0; k < 3; ++k) {
        manifests << path(QStringLiteral("m/%1.jsonl").arg(k));
        cli({QStringLiteral("process"), QStringLiteral("--shard"), QStringLiteral("%1/3").arg(k),
             QStringLiteral("--manifest"), manifests.back(), QStringLiteral("-o"),
             path(QStringLiteral("out")), in});
    }
    const CliRun text = cli(QStringList{QStringLiteral("manifest")} + manifests);
    EXPECT_EQ(text.exitCode, 1) << "an input failed";
    const QList<QByteArray> said = text.out.split('\n');
    EXPECT_EQ(said[0], "3 manifests: 10 inputs, 9 done, 0 skipped, 1 failed");
    EXPECT_TRUE(
        said[1].startsWith("failed: " + QFile::encodeName(path(QStringLiteral("in/broken.png"))) + ": "))
        << text.out.constData();
    const CliRun json = cli(QStringList{QStringLiteral("manifest"), QStringLiteral("--json")} + manifests);
    const QJsonObject sum = QJsonDocument::fromJson(json.out).object();
    EXPECT_EQ(sum.value(QStringLiteral("inputs")).toInt(), 10);
    EXPECT_EQ(sum.value(QStringLiteral("done")).toInt(), 9);
    EXPECT_EQ(sum.value(QStringLiteral("settings")).toInt(), 1);
    const QJsonArray failures = sum.value(QStringLiteral("failures")).toArray();
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures[0][QStringLiteral("input")].toString(), path(QStringLiteral("in/broken.png")));
    EXPECT_FALSE(failures[0][QStringLiteral("error")].toString().isEmpty());
    // Fixed and resumed: its last record decides.
    savePng(m_dir, QStringLiteral("in/broken.png"), coordinates(5, 5));
    for (int k = 0; k < 3; ++k)
        cli({QStringLiteral("process"), QStringLiteral("--shard"), QStringLiteral("%1/3").arg(k),
             QStringLiteral("--resume"), manifests[k], QStringLiteral("-o"), path(QStringLiteral("out")),
             in});
    const CliRun after = cli(QStringList{QStringLiteral("manifest")} + manifests);
    EXPECT_EQ(after.exitCode, 0);
    EXPECT_EQ(after.out, "3 manifests: 10 inputs, 10 done, 0 skipped, 0 failed\n");
    EXPECT_EQ(cli({QStringLiteral("manifest"), path(QStringLiteral("none.jsonl"))}).exitCode, 2);
}

namespace {

// The GNU parallel line of docs/scale.md as printed there, its continuations joined, less what
// names other machines (--sshlogin, --workdir: this test runs where the work is).
QString parallelRecipe() {
    const QString doc = QString::fromUtf8(readBytes(QStringLiteral(CUTLARK_SOURCE_DIR "/docs/scale.md")));
    const qsizetype section = doc.indexOf(QStringLiteral("## GNU parallel across hosts"));
    const qsizetype start = doc.indexOf(QStringLiteral("```sh\n"), section) + 6;
    QString line = doc.mid(start, doc.indexOf(QStringLiteral("```"), start) - start);
    line.replace(QRegularExpression(QStringLiteral("\\\\\\n\\s*")), QString());
    line.replace(QRegularExpression(QStringLiteral("--(sshlogin|workdir) \\S+ ")), QString());
    return line.trimmed();
}

} // namespace

// The recipe run as printed: 32 slices under parallel, one of them lost with SIGKILL as soon as it
// has recorded a result (a wrapper named cutlark-cli stands in for the lost machine), the line run
// again; then photos added and the line run once more.
TEST_F(CliShardTest, TheGnuParallelRecipeRunsAsPrinted) {
    ASSERT_FALSE(QStandardPaths::findExecutable(QStringLiteral("parallel")).isEmpty())
        << "GNU parallel is installed by scripts/setup.sh";
    const QString recipe = parallelRecipe();
    ASSERT_TRUE(
        recipe.startsWith(QStringLiteral("parallel --joblog slices.log --resume-failed cutlark-cli process")))
        << qPrintable(recipe);
    writeBytes(path(QStringLiteral("look.json")),
               R"({"keyWhiteEnabled": true, "trimEnabled": true, "stickerEnabled": true, "strokeWidth": 6})");
    const auto photo = [&](int i) {
        QImage art(160, 120, QImage::Format_RGB32);
        art.fill(Qt::white);
        QPainter painter(&art);
        painter.setBrush(QColor::fromHsv(i * 7 % 360, 200, 180));
        painter.drawEllipse(QRect(20 + i % 9, 15 + i % 7, 100 - i % 11, 80 - i % 5));
        painter.end();
        savePng(m_dir, QStringLiteral("photos/shot %1.png").arg(i), art);
    };
    for (int i = 0; i < 64; ++i)
        photo(i);
    // The slice to lose: the one with the most photos, so that some of it is left to resume.
    QList<int> sizes(32, 0);
    for (int i = 0; i < 64; ++i)
        for (int k = 0; k < 32; ++k)
            sizes[k] += Shard{k, 32}.takes(QStringLiteral("shot %1.png").arg(i)) ? 1 : 0;
    const int lost = int(std::max_element(sizes.begin(), sizes.end()) - sizes.begin());
    const QString bin = folder(QStringLiteral("bin"));
    writeBytes(bin + QStringLiteral("/cutlark-cli"), QByteArrayLiteral(R"(#!/bin/sh
shard= manifest= previous=
for a in "$@"; do
    case "$previous" in --shard) shard=$a ;; --resume) manifest=$a ;; esac
    previous=$a
done
if [ "$shard" = "$LOST/32" ] && mkdir lost.once 2>/dev/null; then
    "$REAL" "$@" >/dev/null 2>&1 &
    pid=$!
    while [ ! -s "$manifest" ] && kill -0 "$pid" 2>/dev/null; do sleep 0.01; done
    kill -KILL "$pid" 2>/dev/null
    wait "$pid"
    exit 137
fi
exec "$REAL" "$@"
)"));
    QFile::setPermissions(bin + QStringLiteral("/cutlark-cli"),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("PATH"), bin + QLatin1Char(':') + env.value(QStringLiteral("PATH")));
    env.insert(QStringLiteral("REAL"), QStringLiteral(CUTLARK_CLI_PATH));
    env.insert(QStringLiteral("LOST"), QString::number(lost));
    env.insert(QStringLiteral("HOME"), m_dir.path()); // parallel keeps a folder of its own there
    const auto runRecipe = [&] {
        QProcess p;
        p.setProcessEnvironment(env);
        p.setWorkingDirectory(m_dir.path());
        p.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), recipe});
        p.waitForFinished(300000);
        return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    };
    EXPECT_EQ(runRecipe(), 1) << "one slice failed: the lost one";
    EXPECT_EQ(runRecipe(), 0) << "run again, it is resumed";
    for (int i = 64; i < 72; ++i)
        photo(i);
    EXPECT_EQ(runRecipe(), 0) << "the slices ended well, so parallel starts none again";
    ASSERT_TRUE(QFile::remove(path(QStringLiteral("slices.log"))));
    EXPECT_EQ(runRecipe(), 0) << "with the log gone every slice runs, and resumes";

    // Every photo has exactly one result, byte for byte what one process writes over the final folder.
    const CliRun one =
        cli({QStringLiteral("process"), QStringLiteral("--preset"), path(QStringLiteral("look.json")),
             QStringLiteral("-o"), path(QStringLiteral("one")), path(QStringLiteral("photos"))});
    ASSERT_EQ(one.exitCode, 0) << qPrintable(one.err);
    const QMap<QString, QByteArray> expected = pngResults(path(QStringLiteral("one")));
    EXPECT_EQ(expected.size(), 72);
    EXPECT_TRUE(pngResults(path(QStringLiteral("out"))) == expected) << "the union is the one run's bytes";
    // Every input recorded done once with a result that is there; the lost slice skipped what it
    // had recorded.
    QMap<QString, int> done;
    QStringList manifests;
    for (int k = 0; k < 32; ++k) {
        manifests << path(QStringLiteral("manifests/%1.jsonl").arg(k));
        countDone(manifests.back(), done);
        for (const QJsonObject& line : manifestLines(manifests.back()))
            EXPECT_TRUE(QFileInfo::exists(line.value(QStringLiteral("output")).toString()));
    }
    EXPECT_EQ(done.size(), 72);
    for (auto it = done.cbegin(); it != done.cend(); ++it)
        EXPECT_EQ(it.value(), 1) << it.key().toStdString();
    EXPECT_EQ(cli(QStringList{QStringLiteral("manifest")} + manifests).out,
              "32 manifests: 72 inputs, 72 done, 0 skipped, 0 failed\n");
}
