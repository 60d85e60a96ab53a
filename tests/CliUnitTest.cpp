// The command line's parts that need no process of their own: the options' table and parser, the
// help, the inputs' expansion, the output plan, and usage errors (the runner in this process, its
// two streams in memory).
#include "TestSupport.h"

#include "cli/CliInputs.h"
#include "cli/CliOptions.h"
#include "cli/CliRunner.h"
#include "cli/OutputPlan.h"
#include "support/AvailableCores.h"
#include "support/DidYouMean.h"
#include "support/NativePath.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <sched.h>

#include <cstdio>
#include <cstdlib>

using namespace cutlark;
using namespace cutlark::test;

namespace {

struct InProcess {
    int exitCode = -1;
    QByteArray out;
    QString err;
};

// The runner as the program runs it, with standard output and error in memory.
InProcess runCli(const QStringList& arguments) {
    char* outText = nullptr;
    char* errText = nullptr;
    size_t outSize = 0, errSize = 0;
    FILE* out = open_memstream(&outText, &outSize);
    FILE* err = open_memstream(&errText, &errSize);
    InProcess run;
    run.exitCode = CliRunner(out, err).run(arguments);
    std::fclose(out);
    std::fclose(err);
    run.out = QByteArray(outText, qsizetype(outSize));
    run.err = QString::fromUtf8(errText, qsizetype(errSize));
    std::free(outText);
    std::free(errText);
    return run;
}

CliOptions parsed(const QStringList& arguments) {
    CliOptions options;
    const auto error = CliOptions::parse(arguments, options);
    EXPECT_FALSE(error) << qPrintable(error.value_or(QString()));
    return options;
}

} // namespace

TEST(CliOptions, TheFormsLinuxToolsHaveMeanTheSame) {
    // --name=value, -j4 and -oDIR read as the spaced forms do; "--" ends the options; "-" is an input.
    const CliOptions spaced =
        parsed({QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("paddingEnabled=true"),
                QStringLiteral("--jobs"), QStringLiteral("2"), QStringLiteral("-o"), QStringLiteral("out"),
                QStringLiteral("a.png")});
    for (const QStringList& other :
         {QStringList{QStringLiteral("process"), QStringLiteral("--set=paddingEnabled=true"),
                      QStringLiteral("-j2"), QStringLiteral("-oout"), QStringLiteral("a.png")},
          QStringList{QStringLiteral("process"), QStringLiteral("a.png"),
                      QStringLiteral("--set=paddingEnabled=true"), QStringLiteral("--jobs=2"),
                      QStringLiteral("--output=out")}}) {
        const CliOptions o = parsed(other);
        EXPECT_EQ(o.sets, spaced.sets);
        EXPECT_EQ(o.jobs, 2);
        EXPECT_EQ(o.outputDir, QStringLiteral("out"));
        EXPECT_EQ(o.inputs, QStringList{QStringLiteral("a.png")});
    }
    const CliOptions dashed = parsed(
        {QStringLiteral("process"), QStringLiteral("--stdout"), QStringLiteral("--"), QStringLiteral("-")});
    EXPECT_EQ(dashed.inputs, QStringList{QStringLiteral("-")});
    EXPECT_TRUE(
        parsed({QStringLiteral("trace"), QStringLiteral("-o"), QStringLiteral("-"), QStringLiteral("a.png")})
            .toStdout)
        << "-o - is standard output";
    // The later of --strip and --keep-metadata wins.
    EXPECT_FALSE(parsed({QStringLiteral("process"), QStringLiteral("--strip"),
                         QStringLiteral("--keep-metadata"), QStringLiteral("a.png")})
                     .strip);
    EXPECT_TRUE(parsed({QStringLiteral("process"), QStringLiteral("--keep-metadata"),
                        QStringLiteral("--strip"), QStringLiteral("a.png")})
                    .strip);
}

TEST(CliOptions, EachCommandsHelpListsEveryOptionOfTheTableItTakes) {
    // The top-level help names every option, with the commands that take it.
    const QString all = CliOptions::usage();
    for (const CliOptions::Option& o : CliOptions::options())
        EXPECT_TRUE(all.contains(QStringLiteral("--") + QLatin1String(o.name) + QLatin1Char(' '))) << o.name;
    EXPECT_TRUE(all.contains(QStringLiteral("  --shard K/N "))) << qPrintable(all);
    for (CliOptions::Command command :
         {CliOptions::Command::process, CliOptions::Command::trace, CliOptions::Command::split,
          CliOptions::Command::info, CliOptions::Command::manifest}) {
        const QString help = CliOptions::usage(command);
        for (const CliOptions::Option& o : CliOptions::options()) {
            bool takes = false; // by this row, or another of the same name (-o is a folder or a file)
            for (const CliOptions::Option& same : CliOptions::options())
                takes = takes || (qstrcmp(same.name, o.name) == 0 &&
                                  (same.commands & CliOptions::commandBit(command)));
            const QString form =
                QStringLiteral("  ") +
                (*o.shortName ? QStringLiteral("-%1, ").arg(QLatin1String(o.shortName)) : QString()) +
                QStringLiteral("--") + QLatin1String(o.name);
            EXPECT_EQ(help.contains(form), takes)
                << o.name << " in " << qPrintable(help.section(QLatin1Char('\n'), 0, 0));
        }
    }
    // The help goes to standard output and wins over anything else on the line.
    for (const char* command : {"process", "trace", "split", "info", "manifest", "settings"}) {
        const InProcess run =
            runCli({QLatin1String(command), QStringLiteral("--help"), QStringLiteral("--nosuch")});
        EXPECT_EQ(run.exitCode, 0) << command;
        EXPECT_TRUE(run.out.startsWith("Usage: cutlark-cli " + QByteArray(command))) << run.out.constData();
    }
    EXPECT_EQ(runCli({QStringLiteral("help"), QStringLiteral("process")}).out,
              runCli({QStringLiteral("process"), QStringLiteral("--help")}).out);
    for (const char* v : {"--version", "-V", "version"}) {
        const InProcess run = runCli({QLatin1String(v)});
        EXPECT_EQ(run.out, QByteArray("cutlark-cli " CUTLARK_VERSION "\n")) << v;
        EXPECT_TRUE(run.err.isEmpty());
    }
}

TEST(CliOptions, SettingsHelpComesFromTheTable) {
    const InProcess help = runCli({QStringLiteral("help"), QStringLiteral("settings")});
    ASSERT_EQ(help.exitCode, 0);
    EXPECT_EQ(runCli({QStringLiteral("settings"), QStringLiteral("--help")}).out, help.out);
    const QJsonObject defaults = QJsonDocument::fromJson(runCli({QStringLiteral("settings")}).out).object();
    ASSERT_EQ(defaults.size(), 43);
    for (const QString& name : defaults.keys())
        EXPECT_TRUE(help.out.contains("\n  " + name.toUtf8() + ' ')) << name.toStdString();
    EXPECT_TRUE(help.out.contains("  strokeWidth          number 0…40 px, default 14; needs stickerEnabled\n"
                                  "      width of the sticker outline\n"));
    EXPECT_TRUE(
        help.out.contains("  bgRemovalMode        white|subject, default \"white\"; needs keyWhiteEnabled"));
    EXPECT_TRUE(help.out.contains("  vectorStacked        bool, default false; needs vectorFullColor\n"));
}

TEST(CliOptions, AUsageErrorIsOneLineExitTwoAndNothingDone) {
    QTemporaryDir dir;
    const QString a = savePng(dir, QStringLiteral("a.png"), coordinates(4, 4));
    const QString a2 = savePng(dir, QStringLiteral("a2.png"), coordinates(4, 4));
    const QString process = QStringLiteral("see cutlark-cli process --help\n");
    const QList<QPair<QStringList, QString>> cases = {
        {{}, QStringLiteral("no command given; see cutlark-cli --help\n")},
        {{QStringLiteral("frobnicate")},
         QStringLiteral("unknown command “frobnicate”; see cutlark-cli --help\n")},
        {{QStringLiteral("proces"), a},
         QStringLiteral("unknown command “proces” (did you mean “process”?); see cutlark-cli --help\n")},
        {{QStringLiteral("manifest")}, QStringLiteral("no input given; see cutlark-cli manifest --help\n")},
        {{QStringLiteral("process")}, QStringLiteral("no input given; ") + process},
        {{QStringLiteral("process"), QStringLiteral("--jbos"), a},
         QStringLiteral("unknown option “--jbos” (did you mean “--jobs”?); ") + process},
        {{QStringLiteral("process"), QStringLiteral("--recursve"), a},
         QStringLiteral("unknown option “--recursve” (did you mean “--recursive”?); ") + process},
        {{QStringLiteral("process"), QStringLiteral("--frobnicate"), a},
         QStringLiteral("unknown option “--frobnicate”; ") + process},
        {{QStringLiteral("process"), QStringLiteral("-o"), dir.filePath(QStringLiteral("one.png")), a, a2},
         QStringLiteral("-o %1 names a file, and 2 inputs were given; give -o a folder for many; ")
                 .arg(dir.filePath(QStringLiteral("one.png"))) +
             process},
        {{QStringLiteral("trace"), QStringLiteral("--stdout"), a, a2},
         QStringLiteral("trace --stdout takes one input; see cutlark-cli trace --help\n")},
        {{QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("trimEnabeld=true"), a},
         QStringLiteral("--set: unknown setting “trimEnabeld” (did you mean “trimEnabled”?)\n")},
        {{QStringLiteral("process"), QStringLiteral("--in-place=yes"), a},
         QStringLiteral("--in-place takes no value; ") + process},
        {{QStringLiteral("process"), QStringLiteral("-j0"), a},
         QStringLiteral("--jobs needs a number from 1 to 256; ") + process},
        {{QStringLiteral("process"), QStringLiteral("-j")},
         QStringLiteral("--jobs needs a number from 1 to 256; ") + process},
        {{QStringLiteral("process"), QStringLiteral("--quality"), QStringLiteral("101"), a},
         QStringLiteral("--quality needs a number from 1 to 100; ") + process},
        {{QStringLiteral("process"), QStringLiteral("--in-place"), QStringLiteral("-o"), dir.path(), a},
         QStringLiteral("-o and --in-place exclude each other; ") + process},
        {{QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("threshold=lots"), a},
         QStringLiteral("--set: invalid value “lots” for threshold\n")},
        {{QStringLiteral("process"), QStringLiteral("--set"), QStringLiteral("strokeWidth=500"), a},
         QStringLiteral("--set: strokeWidth = 500 is outside 0 to 40 px\n")},
        {{QStringLiteral("trace"), QStringLiteral("-j2"), QStringLiteral("-o"), QStringLiteral("x.svg"), a},
         QStringLiteral("-j is for process, not trace; see cutlark-cli trace --help\n")},
        {{QStringLiteral("split"), QStringLiteral("--format"), QStringLiteral("png"), a},
         QStringLiteral("--format is for process, not split; see cutlark-cli split --help\n")},
        {{QStringLiteral("settings"), QStringLiteral("--foo")},
         QStringLiteral("settings takes no option “--foo”; see cutlark-cli --help\n")},
        {{QStringLiteral("help"), QStringLiteral("setings")},
         QStringLiteral(
             "no help on “setings”: the commands are process, trace, split, info, manifest, settings (did "
             "you mean “settings”?); see cutlark-cli --help\n")},
    };
    for (const auto& [arguments, message] : cases) {
        const InProcess run = runCli(arguments);
        EXPECT_EQ(run.exitCode, 2) << qPrintable(arguments.join(QLatin1Char(' ')));
        EXPECT_TRUE(run.err.startsWith(QStringLiteral("cutlark-cli: ")));
        EXPECT_TRUE(run.err.endsWith(message)) << qPrintable(run.err);
        EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1) << qPrintable(run.err);
    }
    EXPECT_FALSE(QFileInfo::exists(dir.filePath(QStringLiteral("a-out.png"))))
        << "nothing is done on bad usage";
    EXPECT_FALSE(QFileInfo::exists(dir.filePath(QStringLiteral("one.png"))));
}

TEST(CliOptions, OnlyARunThatMayCutOutSubjectsAsksForHugePages) {
    QTemporaryDir dir;
    EXPECT_FALSE(parsed({QStringLiteral("process"), QStringLiteral("a.png")}).mayCutOutSubjects());
    EXPECT_TRUE(parsed({QStringLiteral("process"), QStringLiteral("--set=bgRemovalMode=subject"),
                        QStringLiteral("a.png")})
                    .mayCutOutSubjects());
    EXPECT_FALSE(parsed({QStringLiteral("info"), QStringLiteral("a.png")}).mayCutOutSubjects());
    const QString preset = dir.filePath(QStringLiteral("p.json"));
    writeBytes(preset, R"({"keyWhiteEnabled": true, "bgRemovalMode": "subject"})");
    EXPECT_TRUE(parsed({QStringLiteral("trace"), QStringLiteral("--preset"), preset, QStringLiteral("-o"),
                        QStringLiteral("x.svg"), QStringLiteral("a.png")})
                    .mayCutOutSubjects());
    writeBytes(preset, R"({"comment": "subject to change", "bgRemovalMode": "white"})");
    EXPECT_FALSE(
        parsed({QStringLiteral("process"), QStringLiteral("--preset"), preset, QStringLiteral("a.png")})
            .mayCutOutSubjects())
        << "the preset read as settings, not searched for a word";
}

TEST(CliInputs, FoldersExpandInNameOrderKeepTheirPlaceAndAFileCountsOnce) {
    QTemporaryDir dir;
    QDir(dir.path()).mkpath(QStringLiteral("shots/deeper/deepest"));
    QDir(dir.path()).mkpath(QStringLiteral("shots/empty"));
    QDir(dir.path()).mkpath(QStringLiteral("nothing"));
    for (const char* name :
         {"shots/img10.png", "shots/img2.png", "shots/img1.png", "shots/notes.txt", "shots/deeper/img0.png",
          "shots/deeper/deepest/a.png", "lone.png", "nothing/readme.txt"})
        savePng(dir, QLatin1String(name), coordinates(4, 4));
    const QString shots = dir.filePath(QStringLiteral("shots"));
    const QString lone = dir.filePath(QStringLiteral("lone.png"));
    const QString nothing = dir.filePath(QStringLiteral("nothing"));
    const auto fields = [](const QList<CliInputs::Input>& inputs, QString CliInputs::Input::*field) {
        QStringList out;
        for (const CliInputs::Input& input : inputs)
            out << input.*field;
        return out;
    };
    CliInputs::Report report;
    const QList<CliInputs::Input> flat =
        CliInputs::expand({shots, lone, dir.path() + QStringLiteral("/./lone.png"),
                           shots + QStringLiteral("/img2.png"), nothing},
                          false, true, &report);
    EXPECT_EQ(fields(flat, &CliInputs::Input::sliceKey),
              (QStringList{"img1.png", "img2.png", "img10.png", lone}))
        << "numbers as numbers, subfolders and other files left out, repeats once; keys below the folder "
           "named";
    EXPECT_EQ(fields(flat, &CliInputs::Input::place), (QStringList{"shots", "shots", "shots", ""}))
        << "a folder's pictures keep its name below -o, a file named directly goes straight in";
    EXPECT_EQ(report.emptyFolders, QStringList{nothing});
    ASSERT_EQ(report.skippedSubfolders.size(), 1);
    EXPECT_EQ(report.skippedSubfolders[0], (QPair<QString, int>{shots, 2}));

    CliInputs::Report deep;
    const QList<CliInputs::Input> tree = CliInputs::expand({shots}, true, true, &deep);
    EXPECT_EQ(fields(tree, &CliInputs::Input::sliceKey),
              (QStringList{"img1.png", "img2.png", "img10.png", "deeper/img0.png", "deeper/deepest/a.png"}))
        << "a folder's own pictures first, then each subfolder's in name order";
    EXPECT_EQ(fields(tree, &CliInputs::Input::place),
              (QStringList{"shots", "shots", "shots", "shots/deeper", "shots/deeper/deepest"}));
    EXPECT_TRUE(deep.emptyFolders.isEmpty() && deep.skippedSubfolders.isEmpty());
    // "." keeps no name of its own: its pictures go straight below -o.
    EXPECT_EQ(CliInputs::expand({shots + QStringLiteral("/.")}).first().place, QString());
    EXPECT_EQ(CliInputs::expand({lone, lone}, false, false).size(), 2) << "info and split take each as named";
}

TEST(CliInputs, ListsReadLinesOrNulSeparatedNamesAsBytes) {
    QTemporaryDir dir;
    const QString list = dir.filePath(QStringLiteral("list"));
    writeBytes(list, QByteArray("a.png\r\n\nwith space.png\nlast.png"));
    QStringList names;
    ASSERT_FALSE(CliInputs::readList(list, false, names));
    EXPECT_EQ(names, (QStringList{"a.png", "with space.png", "last.png"})) << "empty lines and CRs left out";
    names.clear();
    writeBytes(list, QByteArray("new\nline.png\0caf\xe9.png\0", 21));
    ASSERT_FALSE(CliInputs::readList(list, true, names));
    ASSERT_EQ(names.size(), 2);
    EXPECT_EQ(names[0], QStringLiteral("new\nline.png"));
    EXPECT_EQ(NativePath::toBytes(names[1]), QByteArray("caf\xe9.png")) << "a Latin-1 name keeps its bytes";
    const auto error = CliInputs::readList(dir.filePath(QStringLiteral("missing")), false, names);
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->contains(QStringLiteral("missing"))) << qPrintable(*error);
}

TEST(OutputPlan, AResultsNameDependsOnItsOwnInputAlone) {
    CliOptions options;
    options.outputDir = QStringLiteral("/results");
    const auto input = [](const char* path, const char* place) {
        return CliInputs::Input{QLatin1String(path), QString(), QLatin1String(place), QString()};
    };
    // The same name in two folders named keeps apart below -o, each in its folder's place.
    const QList<CliInputs::Input> two = {input("/x/a/img3.jpg", "a"), input("/x/b/img3.jpg", "b")};
    const std::vector<OutputPlan::Plan> plans = OutputPlan::plan(two, options, false);
    ASSERT_EQ(plans.size(), 2u);
    EXPECT_EQ(plans[0].folder, QStringLiteral("/results/a"));
    EXPECT_EQ(plans[1].folder, QStringLiteral("/results/b"));
    EXPECT_TRUE(plans[0].clashesWith.isEmpty() && plans[1].clashesWith.isEmpty());
    // A photo added later changes nothing about the others' names.
    const std::vector<OutputPlan::Plan> more =
        OutputPlan::plan(two + QList{input("/x/a/img2.jpg", "a")}, options, false);
    EXPECT_EQ(OutputPlan::results({more[0], more[1]}), OutputPlan::results(plans));

    // Two files named directly that would share a result are both refused, each naming the other;
    // a JPEG that may become a PNG clashes with the PNG of the same stem.
    const std::vector<OutputPlan::Plan> clash =
        OutputPlan::plan({input("/a/item.png", ""), input("/b/item.png", ""), input("/c/shot.jpg", ""),
                          input("/c/shot.png", ""), input("/c/other.png", "")},
                         options, true);
    EXPECT_EQ(clash[0].clashesWith, QStringLiteral("/b/item.png"));
    EXPECT_EQ(clash[1].clashesWith, QStringLiteral("/a/item.png"));
    EXPECT_EQ(clash[2].extensions, (QStringList{"jpg", "png"}));
    EXPECT_EQ(clash[3].clashesWith, QStringLiteral("/c/shot.jpg"));
    EXPECT_TRUE(clash[4].clashesWith.isEmpty());
    EXPECT_EQ(OutputPlan::results(clash), (QSet<QString>{"/results/item-out.png", "/results/shot-out.jpg",
                                                         "/results/shot-out.png", "/results/other-out.png"}));
    // Without transparency possible, or with a format asked for, one extension each.
    EXPECT_EQ(OutputPlan::plan({input("/c/shot.jpg", "")}, options, false)[0].extensions, QStringList{"jpg"});
    options.format = QStringLiteral("image/webp");
    EXPECT_EQ(OutputPlan::plan({input("/c/shot.jpg", "")}, options, true)[0].extensions, QStringList{"webp"});
    // Without -o, beside each input, whatever its place.
    EXPECT_EQ(OutputPlan::plan({input("/c/shot.jpg", "c")}, CliOptions(), false)[0].folder,
              QStringLiteral("/c"));
    // -o with an image type's name and one input: that file.
    options = CliOptions();
    options.outputDir = QStringLiteral("/out/result.png");
    EXPECT_EQ(OutputPlan::plan({input("/c/shot.jpg", "")}, options, false)[0].file,
              QStringLiteral("/out/result.png"));
    EXPECT_TRUE(OutputPlan::namesFile(QStringLiteral("/out/result.WEBP")));
    EXPECT_FALSE(OutputPlan::namesFile(QStringLiteral("/out/results")));
    EXPECT_FALSE(OutputPlan::namesFile(QStringLiteral("/out/results.txt")));
}

TEST(CliTerminal, TheBarSaysTheRateAndTheTimeLeftOnceASecondHasPassed) {
    EXPECT_EQ(CliTerminal::barText(0, 10, 0), QByteArray("[                              ] 0/10"));
    EXPECT_EQ(CliTerminal::barText(5, 10, 900), QByteArray("[###############               ] 5/10"))
        << "no rate over the first instant";
    EXPECT_EQ(CliTerminal::barText(5, 10, 2000),
              QByteArray("[###############               ] 5/10  2.5 images/s  2 s left"));
    EXPECT_EQ(CliTerminal::barText(150, 10000, 10000),
              QByteArray("[                              ] 150/10000  15 images/s  10:57 left"));
    EXPECT_EQ(CliTerminal::barText(10, 100000, 5000),
              QByteArray("[                              ] 10/100000  2.0 images/s  13:53:15 left"));
    EXPECT_EQ(CliTerminal::barText(10, 10, 4000),
              QByteArray("[##############################] 10/10  2.5 images/s  0 s left"));
}

TEST(DidYouMean, ASlipIsNamedAnotherWordIsNot) {
    const QStringList words = {"process", "trace", "split", "info", "settings", "paddingEnabled", "padding"};
    EXPECT_EQ(DidYouMean::closest(QStringLiteral("proces"), words), QStringLiteral("process"));
    EXPECT_EQ(DidYouMean::closest(QStringLiteral("trcae"), words), QStringLiteral("trace"))
        << "a swap is one slip";
    EXPECT_EQ(DidYouMean::closest(QStringLiteral("PaddingEnabeld"), words), QStringLiteral("paddingEnabled"));
    EXPECT_EQ(DidYouMean::closest(QStringLiteral("padding"), words), QStringLiteral("padding"));
    EXPECT_TRUE(DidYouMean::closest(QStringLiteral("frobnicate"), words).isEmpty());
    EXPECT_TRUE(DidYouMean::closest(QStringLiteral("tx"), words).isEmpty())
        << "two letters of five aren't a slip";
    EXPECT_TRUE(DidYouMean::closest(QString(200, QLatin1Char('a')), words).isEmpty());
}

TEST(AvailableCores, FollowsTheAffinityMask) {
    cpu_set_t before;
    ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
    const int all = AvailableCores::count();
    EXPECT_GE(all, 1);
    EXPECT_LE(all, CPU_COUNT(&before));
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &before)) {
            CPU_SET(cpu, &one);
            break;
        }
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    EXPECT_EQ(AvailableCores::count(), 1);
    ASSERT_EQ(sched_setaffinity(0, sizeof before, &before), 0);
    EXPECT_EQ(AvailableCores::count(), all);
}
