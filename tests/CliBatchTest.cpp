// Batches: where results go and what they are called, the ways inputs come in (folders, trees,
// lists, standard input) and results go out, and what a run says while and after it works. Each case runs the
// real program.
#include "CliProgram.h"
#include "HostileBytes.h"

#include "io/ImageFile.h"
#include "support/NativePath.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QPainter>
#include <QProcess>
#include <QStandardPaths>

#include <fcntl.h>
#include <unistd.h>

using namespace cutlark;
using namespace cutlark::test;

namespace {

class CliBatchTest : public CliFixture {};

} // namespace

TEST_F(CliBatchTest, ProcessWritesNewFilesIntoTheOutputFolder) {
    QDir(m_dir.path()).mkdir(QStringLiteral("in"));
    savePng(m_dir, QStringLiteral("in/img10.png"), coordinates(40, 20));
    savePng(m_dir, QStringLiteral("in/img2.png"), coordinates(30, 10));
    const CliRun run =
        cli({QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("quarterTurns=1"),
             QStringLiteral("-o"), path(QStringLiteral("out")), path(QStringLiteral("in"))});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    ASSERT_EQ(run.lines.size(), 2);
    EXPECT_TRUE(run.lines[0].value(QStringLiteral("input")).toString().endsWith(QStringLiteral("img2.png")))
        << "name order, numbers as numbers";
    const QString out = run.lines[1].value(QStringLiteral("output")).toString();
    EXPECT_EQ(out, path(QStringLiteral("out/in/img10-out.png")))
        << "the folder named keeps its place below -o";
    EXPECT_EQ(run.lines[1].value(QStringLiteral("width")).toInt(), 20);
    EXPECT_EQ(run.lines[1].value(QStringLiteral("height")).toInt(), 40);
    EXPECT_EQ(run.lines[1].value(QStringLiteral("type")).toString(), QStringLiteral("image/png"));
    const auto written = ImageFile::load(out);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->image.size(), QSize(20, 40));
    EXPECT_EQ(qGreen(written->image.pixel(0, 0)), 19) << "turned clockwise";
}

TEST_F(CliBatchTest, FailuresAreNamedAndTheRestIsStillDone) {
    const QString good = savePng(m_dir, QStringLiteral("good.png"), coordinates(8, 8));
    const QString bad = path(QStringLiteral("broken.jpg"));
    writeBytes(bad, "not a jpeg");
    const CliRun run = cli({QStringLiteral("process"), bad, good});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines.size(), 2);
    EXPECT_TRUE(run.lines[0].contains(QStringLiteral("error")));
    EXPECT_EQ(run.lines[1].value(QStringLiteral("output")).toString(), path(QStringLiteral("good-out.png")));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("good-out.png"))));
    // The failure named, then the run in one line.
    QString err = run.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("1 written, 0 skipped, 1 failed")) << qPrintable(run.err);
    EXPECT_TRUE(err.startsWith(QStringLiteral("cutlark-cli: %1: ").arg(bad))) << qPrintable(err);
    EXPECT_EQ(err.count(QLatin1Char('\n')), 1);
}

TEST_F(CliBatchTest, StandardStreamsCarryOnePictureInAndItsResultOut) {
    QImage page = solid(90, 60, Qt::white);
    for (int y = 20; y < 40; ++y)
        for (int x = 30; x < 70; ++x)
            page.setPixelColor(x, y, Qt::black);
    const QString in = savePng(m_dir, QStringLiteral("shape.png"), page);
    const QByteArray bytes = readBytes(in);
    const QString trim = QStringLiteral("--set=trimEnabled=true");

    // process - --stdout: the same bytes as the file written from the file; the JSON on stderr.
    const CliRun file =
        cli({QStringLiteral("process"), trim, QStringLiteral("-o"), path(QStringLiteral("f")), in});
    ASSERT_EQ(file.exitCode, 0) << file.err.toStdString();
    const QByteArray written = readBytes(path(QStringLiteral("f/shape-out.png")));
    ASSERT_FALSE(written.isEmpty());
    const CliRun stream =
        piped({QStringLiteral("process"), trim, QStringLiteral("-"), QStringLiteral("--stdout")}, bytes);
    ASSERT_EQ(stream.exitCode, 0) << stream.err.toStdString();
    EXPECT_EQ(stream.out, written);
    const QJsonObject report = QJsonDocument::fromJson(stream.err.toUtf8()).object();
    EXPECT_EQ(report.value(QStringLiteral("input")).toString(), QStringLiteral("-"));
    EXPECT_EQ(report.value(QStringLiteral("output")).toString(), QStringLiteral("-"));
    EXPECT_EQ(report.value(QStringLiteral("width")).toInt(), 40);
    // "-o -" is the same as --stdout, from a file too; nothing named "-" appears.
    const CliRun dash = cli({QStringLiteral("process"), trim, QStringLiteral("-o"), QStringLiteral("-"), in});
    EXPECT_EQ(dash.out, written);
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("-")));
    // Standard input into a folder is called stdin-out.<its type>.
    const CliRun intoFolder = piped({QStringLiteral("process"), trim, QStringLiteral("-o"),
                                     path(QStringLiteral("s")), QStringLiteral("-")},
                                    bytes);
    ASSERT_EQ(intoFolder.exitCode, 0) << intoFolder.err.toStdString();
    EXPECT_EQ(readBytes(path(QStringLiteral("s/stdin-out.png"))), written);

    // trace --stdout writes the SVG there; -o into a missing folder makes it.
    const CliRun svgFile =
        cli({QStringLiteral("trace"), QStringLiteral("-o"), path(QStringLiteral("new/deeper/t.svg")), in});
    ASSERT_EQ(svgFile.exitCode, 0) << svgFile.err.toStdString();
    const QByteArray svg = readBytes(path(QStringLiteral("new/deeper/t.svg")));
    EXPECT_TRUE(svg.startsWith("<?xml"));
    const CliRun svgStream =
        piped({QStringLiteral("trace"), QStringLiteral("--stdout"), QStringLiteral("-")}, bytes);
    ASSERT_EQ(svgStream.exitCode, 0) << svgStream.err.toStdString();
    EXPECT_EQ(svgStream.out, svg);
    EXPECT_TRUE(svgStream.err.contains(QStringLiteral("\"output\":\"-\"")));

    // What can't work says so in one line, before reading anything.
    const auto usageError = [](const CliRun& run) {
        return run.exitCode == 2 && run.out.isEmpty() && run.err.count(QLatin1Char('\n')) == 1;
    };
    EXPECT_TRUE(usageError(piped({QStringLiteral("process"), QStringLiteral("-")}, bytes)));
    EXPECT_TRUE(usageError(
        cli({QStringLiteral("process"), QStringLiteral("--stdout"), in, in + QStringLiteral("x")})));
    EXPECT_TRUE(usageError(
        cli({QStringLiteral("process"), QStringLiteral("--stdout"), QStringLiteral("--in-place"), in})));
    EXPECT_TRUE(usageError(cli({QStringLiteral("split"), QStringLiteral("-o"), QStringLiteral("-"), in})));
    EXPECT_TRUE(usageError(cli(
        {QStringLiteral("process"), QStringLiteral("--stdout"), QStringLiteral("-"), QStringLiteral("-")})));
    const CliRun two = cli({QStringLiteral("process"), QStringLiteral("--stdout"), in,
                            savePng(m_dir, QStringLiteral("other.png"), page)});
    EXPECT_EQ(two.exitCode, 2);
    EXPECT_TRUE(two.out.isEmpty()) << "nothing half-sent";
    const CliRun empty =
        piped({QStringLiteral("process"), QStringLiteral("-"), QStringLiteral("--stdout")}, QByteArray());
    EXPECT_EQ(empty.exitCode, 1);
    EXPECT_EQ(empty.err, QStringLiteral("cutlark-cli: -: standard input is empty\n"));
    const CliRun garbage =
        piped({QStringLiteral("process"), QStringLiteral("-"), QStringLiteral("--stdout")}, "not a picture");
    EXPECT_EQ(garbage.exitCode, 1);
    EXPECT_TRUE(garbage.out.isEmpty());
}

TEST_F(CliBatchTest, OnATerminalTheBarStartsAtZeroAndGivesWayToEachLine) {
    // util-linux's script gives the program a terminal for both streams, as a person's shell does.
    if (QStandardPaths::findExecutable(QStringLiteral("script")).isEmpty()) GTEST_SKIP() << "no script(1)";
    QStringList inputs;
    for (int i = 0; i < 3; ++i)
        inputs << savePng(m_dir, QStringLiteral("p%1.png").arg(i), coordinates(30 + i, 20));
    QString command = QStringLiteral(CUTLARK_CLI_PATH " process -j2 -o ") + path(QStringLiteral("out"));
    for (const QString& input : inputs)
        command += QLatin1Char(' ') + input;
    QProcess p;
    p.start(QStringLiteral("script"), {QStringLiteral("-qec"), command, QStringLiteral("/dev/null")});
    ASSERT_TRUE(p.waitForFinished(120000));
    ASSERT_EQ(p.exitCode(), 0);
    const QByteArray screen = p.readAllStandardOutput();
    EXPECT_TRUE(screen.startsWith("\r[                              ] 0/3")) << screen.toStdString();
    EXPECT_EQ(screen.count("\r\033[K{\"height\""), 3) << "each line starts on a cleared line";
    EXPECT_FALSE(
        QRegularExpression(QStringLiteral("\\] \\d+/3\\{")).match(QString::fromUtf8(screen)).hasMatch())
        << "a line never glued to the bar";
    // The finished bar stays on a line of its own, the summary under it.
    EXPECT_TRUE(QRegularExpression(
                    QStringLiteral("\\] 3/3[^\\r\\n]*\\r\\ncutlark-cli: 3 written, 0 skipped, 0 failed in "))
                    .match(QString::fromUtf8(screen))
                    .hasMatch())
        << screen.toStdString();
    EXPECT_TRUE(screen.endsWith("images/s)\r\n")) << screen.toStdString();
}

TEST_F(CliBatchTest, InPlaceNeverWritesOverAnotherInput) {
    QDir(m_dir.path()).mkpath(QStringLiteral("f"));
    writeImage(solid(20, 10, Qt::red), path(QStringLiteral("f/a.jpg")), "jpeg");
    const QString png = savePng(m_dir, QStringLiteral("f/a.png"), solid(16, 16, Qt::blue));
    const QByteArray jpegBefore = readBytes(path(QStringLiteral("f/a.jpg")));
    const CliRun run = cli({QStringLiteral("process"), QStringLiteral("--in-place"), QStringLiteral("--set"),
                            QStringLiteral("paddingEnabled=true"), path(QStringLiteral("f"))});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines.size(), 2);
    EXPECT_TRUE(run.lines[0]
                    .value(QStringLiteral("error"))
                    .toString()
                    .contains(QStringLiteral("“a.png”, which is another input")))
        << qPrintable(run.lines[0].value(QStringLiteral("error")).toString());
    EXPECT_TRUE(run.err.contains(QStringLiteral("a.jpg")));
    EXPECT_EQ(readBytes(path(QStringLiteral("f/a.jpg"))), jpegBefore) << "nothing of it was written";
    const auto blue = ImageFile::load(png);
    ASSERT_TRUE(blue);
    EXPECT_EQ(blue->image.size(), QSize(16 + 80, 16 + 80)) << "the PNG was processed once, as itself";
    EXPECT_EQ(QColor(blue->image.pixel(48, 48)), QColor(Qt::blue));
}

TEST_F(CliBatchTest, ResultsAreNeverInputsAndAreNotReplacedWithoutOverwrite) {
    QDir(m_dir.path()).mkpath(QStringLiteral("logos"));
    const QString logo = savePng(m_dir, QStringLiteral("logos/logo.png"), solid(10, 10, Qt::green));
    const QStringList args = {QStringLiteral("process"), QStringLiteral("--set"),
                              QStringLiteral("paddingEnabled=true"), path(QStringLiteral("logos"))};
    const CliRun first = cli(args);
    ASSERT_EQ(first.exitCode, 0) << qPrintable(first.err);
    const QString result = path(QStringLiteral("logos/logo-out.png"));
    const QByteArray written = readBytes(result);
    ASSERT_FALSE(written.isEmpty());

    // Again beside the inputs: the first run's result is no input, and it isn't replaced.
    const CliRun second = cli(args);
    EXPECT_EQ(second.exitCode, 0);
    ASSERT_EQ(second.lines.size(), 1) << "logo-out.png is not taken as an input";
    EXPECT_EQ(second.lines[0].value(QStringLiteral("skipped")).toString(), QStringLiteral("exists"));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("logos/logo-out-out.png"))));
    EXPECT_EQ(readBytes(result), written);
    // Asked to, it is.
    const CliRun third = cli(QStringList(args) << QStringLiteral("--overwrite") << QStringLiteral("--set")
                                               << QStringLiteral("padAmount=5"));
    EXPECT_EQ(third.exitCode, 0);
    EXPECT_EQ(ImageFile::load(result)->image.width(), 20);

    // One file named three ways is one input.
    const QString relative = QDir::current().relativeFilePath(logo);
    const CliRun once =
        cli({QStringLiteral("process"), QStringLiteral("--in-place"), QStringLiteral("--set"),
             QStringLiteral("paddingEnabled=true"), QStringLiteral("--set"), QStringLiteral("padAmount=1"),
             logo, relative, path(QStringLiteral("logos/../logos/logo.png"))});
    EXPECT_EQ(once.exitCode, 0) << qPrintable(once.err);
    EXPECT_EQ(once.lines.size(), 1);
    EXPECT_EQ(ImageFile::load(logo)->image.width(), 12) << "padded once, not three times";
}

TEST_F(CliBatchTest, RecursionMirrorsTheTreeAndSubfoldersLeftOutAreSaid) {
    savePng(m_dir, QStringLiteral("shoot/a.png"), coordinates(10, 10));
    savePng(m_dir, QStringLiteral("shoot/day 2/b.png"), coordinates(11, 10));
    savePng(m_dir, QStringLiteral("shoot/day 2/late/c.png"), coordinates(12, 10));
    folder(QStringLiteral("shoot/notes"));
    const QString shoot = path(QStringLiteral("shoot"));
    const CliRun flat = cli({QStringLiteral("info"), shoot});
    EXPECT_EQ(flat.exitCode, 0);
    EXPECT_EQ(flat.lines.size(), 1);
    EXPECT_EQ(flat.err,
              QStringLiteral("cutlark-cli: %1: 2 subfolders left out; give -r to go into them\n").arg(shoot));

    const CliRun deep = cli({QStringLiteral("process"), QStringLiteral("-r"), QStringLiteral("-o"),
                             path(QStringLiteral("out")), shoot});
    ASSERT_EQ(deep.exitCode, 0) << qPrintable(deep.err);
    EXPECT_EQ(field(deep, "output"), (QStringList{path(QStringLiteral("out/shoot/a-out.png")),
                                                  path(QStringLiteral("out/shoot/day 2/b-out.png")),
                                                  path(QStringLiteral("out/shoot/day 2/late/c-out.png"))}));
    for (const QString& output : field(deep, "output"))
        EXPECT_TRUE(QFileInfo::exists(output)) << qPrintable(output);
    // Beside each input without -o; results of a run before are no inputs.
    const CliRun beside = cli({QStringLiteral("process"), QStringLiteral("--recursive"), shoot});
    ASSERT_EQ(beside.exitCode, 0) << qPrintable(beside.err);
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("shoot/day 2/late/c-out.png"))));
    EXPECT_EQ(cli({QStringLiteral("process"), QStringLiteral("-r"), shoot}).lines.size(), 3);

    // A folder with no picture, or one named like a picture, is named as a failed input.
    const QString empty = folder(QStringLiteral("album.png"));
    writeBytes(path(QStringLiteral("album.png/readme.txt")), "words");
    const CliRun none = cli({QStringLiteral("process"), empty, path(QStringLiteral("shoot/a.png"))});
    EXPECT_EQ(none.exitCode, 1);
    ASSERT_EQ(none.lines.size(), 2);
    EXPECT_EQ(none.lines[0].value(QStringLiteral("input")).toString(), empty);
    EXPECT_EQ(none.lines[0].value(QStringLiteral("error")).toString(),
              QStringLiteral("no picture cutlark opens in this folder"));
    QString err = none.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("0 written, 1 skipped, 1 failed")) << qPrintable(none.err);
    // Nothing but such folders: the failures, and still the run's one line at the end.
    const CliRun only = cli({QStringLiteral("process"), empty, path(QStringLiteral("shoot/notes"))});
    EXPECT_EQ(only.exitCode, 1);
    EXPECT_EQ(only.lines.size(), 2);
    err = only.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("0 written, 0 skipped, 2 failed")) << qPrintable(only.err);
    EXPECT_EQ(err, QStringLiteral("cutlark-cli: %1: no picture cutlark opens in this folder\n"
                                  "cutlark-cli: %2: no picture cutlark opens in this folder\n")
                       .arg(empty, path(QStringLiteral("shoot/notes"))));
}

TEST_F(CliBatchTest, ListsOfFilesComeByLineOrByNulFromAFileOrStandardInput) {
    savePng(m_dir, QStringLiteral("a.png"), coordinates(10, 10));
    savePng(m_dir, QStringLiteral("with space.png"), coordinates(11, 10));
    // A name holding a line feed, and one that isn't UTF-8: only NULs can list them.
    savePng(m_dir, QStringLiteral("two\nlines.png"), coordinates(12, 10));
    const QByteArray latin1 = QFile::encodeName(m_dir.path()) + "/caf\xe9.png";
    const QByteArray png = ImageFile::encode(coordinates(13, 10), QStringLiteral("image/png"));
    const int fd = ::open(latin1.constData(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, png.constData(), size_t(png.size())), png.size());
    ::close(fd);

    writeBytes(path(QStringLiteral("list.txt")),
               (path(QStringLiteral("a.png")) + QStringLiteral("\n\n") +
                path(QStringLiteral("with space.png")) + QStringLiteral("\n"))
                   .toUtf8());
    const CliRun lines =
        cli({QStringLiteral("info"), QStringLiteral("--files-from"), path(QStringLiteral("list.txt"))});
    ASSERT_EQ(lines.exitCode, 0) << qPrintable(lines.err);
    EXPECT_EQ(field(lines, "input"),
              (QStringList{path(QStringLiteral("a.png")), path(QStringLiteral("with space.png"))}));

    const QByteArray nul = QFile::encodeName(path(QStringLiteral("two\nlines.png"))) + '\0' + latin1 + '\0';
    const CliRun nuls = piped({QStringLiteral("process"), QStringLiteral("--files-from=-"),
                               QStringLiteral("-0"), QStringLiteral("-o"), path(QStringLiteral("out"))},
                              nul);
    ASSERT_EQ(nuls.exitCode, 0) << qPrintable(nuls.err);
    ASSERT_EQ(nuls.lines.size(), 2);
    EXPECT_EQ(nuls.lines[0].value(QStringLiteral("width")).toInt(), 12);
    EXPECT_TRUE(nuls.out.contains("caf\\udce9.png")) << "printed escaped: " << nuls.out.constData();
    EXPECT_EQ(
        ::access((QFile::encodeName(path(QStringLiteral("out"))) + "/caf\xe9-out.png").constData(), F_OK), 0)
        << "its result under the same bytes";
    // A listed name that isn't there fails alone; a list that can't be read is a usage error.
    writeBytes(path(QStringLiteral("gone.txt")),
               "missing.png\n" + QFile::encodeName(path(QStringLiteral("a.png"))));
    const CliRun gone =
        cli({QStringLiteral("info"), QStringLiteral("--files-from"), path(QStringLiteral("gone.txt"))});
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_EQ(gone.lines.size(), 2);
    const CliRun unreadable =
        cli({QStringLiteral("info"), QStringLiteral("--files-from"), path(QStringLiteral("nope.txt"))});
    EXPECT_EQ(unreadable.exitCode, 2);
}

TEST_F(CliBatchTest, OutputNamedAsAnImageIsThatFile) {
    const QString in = savePng(m_dir, QStringLiteral("in.png"), coordinates(30, 20));
    const CliRun jpeg =
        cli({QStringLiteral("process"), QStringLiteral("-o"), path(QStringLiteral("made/result.jpg")), in});
    ASSERT_EQ(jpeg.exitCode, 0) << qPrintable(jpeg.err);
    EXPECT_EQ(jpeg.lines[0].value(QStringLiteral("output")).toString(),
              path(QStringLiteral("made/result.jpg")));
    EXPECT_EQ(ImageFile::load(path(QStringLiteral("made/result.jpg")))->type, QStringLiteral("image/jpeg"))
        << "its type from the extension";
    EXPECT_TRUE(QFileInfo(path(QStringLiteral("made/result.jpg"))).isFile());
    // --format wins over the extension; an existing file is left unless --overwrite.
    EXPECT_EQ(field(cli({QStringLiteral("process"), QStringLiteral("-o"),
                         path(QStringLiteral("made/result.jpg")), in}),
                    "skipped"),
              QStringList{"exists"});
    const CliRun webp = cli({QStringLiteral("process"), QStringLiteral("--format=webp"), QStringLiteral("-o"),
                             path(QStringLiteral("r.png")), in});
    ASSERT_EQ(webp.exitCode, 0) << qPrintable(webp.err);
    EXPECT_EQ(ImageFile::load(path(QStringLiteral("r.png")))->type, QStringLiteral("image/webp"));
    // Transparency into a name whose type can't hold it is refused, not flattened.
    const CliRun keyed = cli({QStringLiteral("process"), QStringLiteral("--set=paddingEnabled=true"),
                              QStringLiteral("-o"), path(QStringLiteral("k.jpg")), in});
    EXPECT_EQ(keyed.exitCode, 1);
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("k.jpg"))));
}

TEST_F(CliBatchTest, TraceTakesManyInputsAndSaysEachOnesOutcome) {
    QImage shape = solid(80, 60, Qt::white);
    QPainter(&shape).fillRect(20, 15, 40, 30, Qt::black);
    const QString a = savePng(m_dir, QStringLiteral("in/a.png"), shape);
    const QString blank = savePng(m_dir, QStringLiteral("in/blank.png"), solid(40, 40, Qt::white));
    const QString c = savePng(m_dir, QStringLiteral("in/c.png"), shape);
    const CliRun run =
        cli({QStringLiteral("trace"), QStringLiteral("-o"), path(QStringLiteral("svg")), a, blank, c});
    EXPECT_EQ(run.exitCode, 1);
    ASSERT_EQ(run.lines.size(), 3) << "one line per input, the failure too";
    EXPECT_EQ(field(run, "output"),
              (QStringList{path(QStringLiteral("svg/a.svg")), path(QStringLiteral("svg/blank.svg")),
                           path(QStringLiteral("svg/c.svg"))}));
    EXPECT_TRUE(
        run.lines[1].value(QStringLiteral("error")).toString().startsWith(QStringLiteral("No clear shape")));
    EXPECT_TRUE(readBytes(path(QStringLiteral("svg/a.svg"))).contains("<svg"));
    EXPECT_TRUE(readBytes(path(QStringLiteral("svg/c.svg"))).contains("<svg"));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("svg/blank.svg"))));
    QString err = run.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("2 written, 0 skipped, 1 failed"));
    // A folder, beside each input; a second run leaves them as they are.
    ASSERT_EQ(QFile::remove(blank), true);
    EXPECT_EQ(cli({QStringLiteral("trace"), path(QStringLiteral("in"))}).exitCode, 0);
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("in/c.svg"))));
    EXPECT_EQ(field(cli({QStringLiteral("trace"), path(QStringLiteral("in"))}), "skipped"),
              (QStringList{"exists", "exists"}));
}

TEST_F(CliBatchTest, SplitRunAgainLeavesItsPiecesAsTheyAre) {
    QImage collage = solid(200, 100, Qt::white);
    QPainter painter(&collage);
    painter.fillRect(10, 10, 80, 80, Qt::black);
    painter.fillRect(110, 10, 80, 80, Qt::black);
    painter.end();
    const QString in = savePng(m_dir, QStringLiteral("sheet.png"), collage);
    const QStringList split = {QStringLiteral("split"), QStringLiteral("-o"), path(QStringLiteral("pieces")),
                               in};
    ASSERT_EQ(cli(split).exitCode, 0);
    const QStringList first = QDir(path(QStringLiteral("pieces"))).entryList(QDir::Files);
    EXPECT_EQ(first, (QStringList{"sheet-1.png", "sheet-2.png"}));
    const CliRun again = cli(split);
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(again.lines[0].value(QStringLiteral("skipped")).toString(), QStringLiteral("exists"));
    EXPECT_EQ(QDir(path(QStringLiteral("pieces"))).entryList(QDir::Files), first)
        << "no sheet-1-2.png beside them";
    const CliRun replaced = cli(split + QStringList{QStringLiteral("--overwrite")});
    EXPECT_EQ(replaced.exitCode, 0) << qPrintable(replaced.err);
    EXPECT_EQ(replaced.lines[0].value(QStringLiteral("pieces")).toArray().size(), 2);
    EXPECT_EQ(QDir(path(QStringLiteral("pieces"))).entryList(QDir::Files), first);
}

TEST_F(CliBatchTest, ImageReadersChatterOnlyWithVerbose) {
    // A PNG whose colour profile libpng finds fault with, as many cameras' and editors' do.
    using namespace hostile::bytes;
    QByteArray ihdr;
    be32(ihdr, 4);
    be32(ihdr, 4);
    ihdr.append("\x08\x02\0\0\0", 5); // 8 bits, RGB
    QByteArray rows;
    for (int y = 0; y < 4; ++y)
        rows += QByteArray(1, '\0') + QByteArray(12, '\x80');
    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    chunk(png, "IHDR", ihdr);
    chunk(png, "iCCP", QByteArray("bogus\0\0", 7) + zlibOf(QByteArray(200, '\0')));
    chunk(png, "IDAT", zlibOf(rows));
    chunk(png, "IEND", QByteArray());
    writeBytes(path(QStringLiteral("odd.png")), png);
    const CliRun quiet = cli({QStringLiteral("process"), QStringLiteral("-o"), path(QStringLiteral("q")),
                              path(QStringLiteral("odd.png"))});
    ASSERT_EQ(quiet.exitCode, 0) << qPrintable(quiet.err);
    QString err = quiet.err;
    EXPECT_EQ(takeSummary(err), QStringLiteral("1 written, 0 skipped, 0 failed"));
    EXPECT_EQ(err, QString());
    const CliRun verbose = cli({QStringLiteral("process"), QStringLiteral("--verbose"), QStringLiteral("-o"),
                                path(QStringLiteral("v")), path(QStringLiteral("odd.png"))});
    EXPECT_TRUE(verbose.err.contains(QStringLiteral("libpng warning: iCCP"))) << qPrintable(verbose.err);
}
