// The command line's parts that need no process of their own: the options' table and parser, the
// help, the inputs' expansion, the output plan, and usage errors (the runner in this process, its
// two streams in memory).
#include "TestSupport.h"

#include "cli/CliInputs.h"
#include "cli/CliOptions.h"
#include "cli/CliRunner.h"
#include "cli/OutputPlan.h"
#include "support/AvailableCores.h"

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
    for (CliOptions::Command command : {CliOptions::Command::process, CliOptions::Command::trace,
                                        CliOptions::Command::split, CliOptions::Command::info}) {
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
    for (const char* command : {"process", "trace", "split", "info", "settings"}) {
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
    ASSERT_EQ(defaults.size(), 42);
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
    const QString process = QStringLiteral("see cutlark-cli process --help\n");
    const QList<QPair<QStringList, QString>> cases = {
        {{}, QStringLiteral("no command given; see cutlark-cli --help\n")},
        {{QStringLiteral("frobnicate")},
         QStringLiteral("unknown command “frobnicate”; see cutlark-cli --help\n")},
        {{QStringLiteral("process")}, QStringLiteral("no input given; ") + process},
        {{QStringLiteral("process"), QStringLiteral("--jbos"), a},
         QStringLiteral("unknown option “--jbos”; ") + process},
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
             "no help on “setings”: the commands are process, trace, split, info and settings; see "
             "cutlark-cli --help\n")},
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

TEST(CliInputs, FoldersExpandInNameOrderAndAFileCountsOnce) {
    QTemporaryDir dir;
    QDir(dir.path()).mkpath(QStringLiteral("shots/deeper"));
    for (const char* name : {"shots/img10.png", "shots/img2.png", "shots/img1.png", "shots/notes.txt",
                             "shots/deeper/img0.png", "lone.png"})
        savePng(dir, QLatin1String(name), coordinates(4, 4));
    const QString shots = dir.filePath(QStringLiteral("shots"));
    const QString lone = dir.filePath(QStringLiteral("lone.png"));
    const QList<CliInputs::Input> inputs = CliInputs::expand(
        {shots, lone, dir.path() + QStringLiteral("/./lone.png"), shots + QStringLiteral("/img2.png")});
    QStringList names, keys;
    for (const CliInputs::Input& input : inputs) {
        names << QFileInfo(input.path).fileName();
        keys << input.sliceKey;
    }
    EXPECT_EQ(names, (QStringList{"img1.png", "img2.png", "img10.png", "lone.png"}))
        << "numbers as numbers, subfolders and other files left out, repeats once";
    EXPECT_EQ(keys, (QStringList{"img1.png", "img2.png", "img10.png", lone}))
        << "below the folder named, or as given";
    EXPECT_EQ(CliInputs::expand({lone, lone}, false).size(), 2) << "info and split take each as named";
}

TEST(OutputPlan, TwoInputsNeverShareAResultWhateverTypeEachTakes) {
    CliOptions options;
    options.outputDir = QStringLiteral("/results");
    // The same stem from two folders into one, and a JPEG that may become a PNG beside a PNG.
    const std::vector<OutputPlan::Plan> plans =
        OutputPlan::plan({QStringLiteral("/a/item.png"), QStringLiteral("/b/item.png"),
                          QStringLiteral("/c/shot.jpg"), QStringLiteral("/c/shot.png")},
                         options, true);
    ASSERT_EQ(plans.size(), 4u);
    EXPECT_EQ(plans[0].number, 1);
    EXPECT_EQ(plans[1].number, 2) << "the later one gets a free name";
    EXPECT_EQ(plans[2].extensions, (QStringList{"jpg", "png"}));
    EXPECT_EQ(plans[3].number, 2) << "shot-out.png is spoken for by the JPEG's possible PNG";
    EXPECT_EQ(OutputPlan::results(plans),
              (QSet<QString>{"/results/item-out.png", "/results/item-out-2.png", "/results/shot-out.jpg",
                             "/results/shot-out.png", "/results/shot-out-2.png"}));
    // Without transparency possible, or with a format asked for, one extension each.
    EXPECT_EQ(OutputPlan::plan({QStringLiteral("/c/shot.jpg")}, options, false)[0].extensions,
              QStringList{"jpg"});
    options.format = QStringLiteral("image/webp");
    EXPECT_EQ(OutputPlan::plan({QStringLiteral("/c/shot.jpg")}, options, true)[0].extensions,
              QStringList{"webp"});
    // Without -o, beside each input.
    EXPECT_EQ(OutputPlan::plan({QStringLiteral("/c/shot.jpg")}, CliOptions(), false)[0].folder,
              QStringLiteral("/c"));
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
