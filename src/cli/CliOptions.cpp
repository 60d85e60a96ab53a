#include "cli/CliOptions.h"

#include "io/ImageFile.h"
#include "model/Settings.h"

#include <QCommandLineParser>
#include <QJsonArray>
#include <QJsonDocument>

#include <utility>

namespace cutlark {

QString CliOptions::usage() {
    return QStringLiteral(
        "Usage:\n"
        "  cutlark-cli process [--set NAME=VALUE]... [--preset FILE.json] [-o DIR | --in-place] "
        "[--overwrite] [--jobs N] [--stdout] INPUT...\n"
        "  cutlark-cli trace [--set NAME=VALUE]... [--preset FILE.json] (-o OUT.svg | --stdout) INPUT\n"
        "  cutlark-cli split [-o DIR] INPUT...\n"
        "  cutlark-cli info INPUT...\n"
        "  cutlark-cli settings\n"
        "  cutlark-cli help [COMMAND | settings]\n"
        "\n"
        "INPUT may be an image file, a folder (its images, in name order) or - for standard input.\n"
        "process writes <stem>-out.<ext> beside each input, or into DIR, or over the input with\n"
        "--in-place, and prints one JSON object per input. A result that exists already is left alone\n"
        "unless --overwrite is given; two inputs never share an output (the later one gets\n"
        "<stem>-out-2.<ext>). trace runs the same pipeline, then the trace the settings choose\n"
        "(silhouette, outline or full colour), and writes its SVG. Settings are named as\n"
        "`cutlark-cli help settings` lists them; `cutlark-cli COMMAND --help` tells more.\n");
}

QString CliOptions::version() {
    return QStringLiteral("cutlark-cli " CUTLARK_VERSION "\n");
}

QString CliOptions::usage(Command command) {
    switch (command) {
    case Command::process:
        return QStringLiteral(
            "Usage: cutlark-cli process [OPTION]... INPUT...\n"
            "Runs each image through the settings' pipeline and writes the result, printing one JSON\n"
            "object per input.\n"
            "\n"
            "  --set NAME=VALUE    a setting (cutlark-cli help settings lists them)\n"
            "  --preset FILE.json  settings from a JSON object; --set wins over it\n"
            "  -o, --output DIR    write into DIR (made when missing) instead of beside each input\n"
            "  --in-place          write over each input (a result with transparency in a JPEG or BMP\n"
            "                      goes to a PNG beside it)\n"
            "  --overwrite         replace results that exist already\n"
            "  --format TYPE       write png, jpeg, webp, tiff, heic, gif or bmp (default: the input's\n"
            "                      own type, PNG when a result with transparency can't be kept in it)\n"
            "  --quality N         1 to 100: for jpeg, webp and heic the quality (default: JPEG 92, WebP\n"
            "                      as the source was stored, HEIC 92); for png the compression effort,\n"
            "                      zlib's level N × 9 / 100 rounded up (default: level 6, as 60 gives)\n"
            "  --keep-metadata     carry each input's EXIF and XMP over to its result, orientation set\n"
            "                      to upright and sizes to the result's (the default; JPEG, PNG, WebP,\n"
            "                      TIFF and HEIC results hold them, GIF and BMP results don't)\n"
            "  --strip             write results without the input's EXIF and XMP\n"
            "  --stdout, -o -      write the one result to standard output (the JSON then goes to\n"
            "                      standard error)\n"
            "  -j, --jobs N        images at once (default: the cores this process may use)\n"
            "  --max-megapixels N  open pictures of up to N megapixels whatever their file's size\n"
            "                      (without it: 40, or 20 pixels per byte of the file, whichever is\n"
            "                      more, so that a small file can't claim gigabytes)\n"
            "  --shard K/N         only the K-th of N slices of the inputs (K from 0), the same slices\n"
            "                      on every machine: by a hash of each input's path relative to the\n"
            "                      folder given (or as given, for a file)\n"
            "  --manifest FILE     append one JSON line per finished input, once its result is on disk\n"
            "  --resume FILE       skip the inputs FILE records as done with the same settings, and go on\n"
            "                      recording there (unless --manifest names another file)\n"
            "\n"
            "INPUT \"-\" reads one image from standard input; its result needs --stdout or -o DIR\n"
            "(where it is called stdin-out.<ext>).\n"
            "\n"
            "Examples:\n"
            "  cutlark-cli process --set keyWhiteEnabled=true --set trimEnabled=true photos/\n"
            "  cutlark-cli process --preset sticker.json -o out/ -j4 *.png\n"
            "  cutlark-cli process --preset look.json -o out/ --shard \"$SLURM_ARRAY_TASK_ID/16\" \\\n"
            "      --resume \"done-$SLURM_ARRAY_TASK_ID.jsonl\" photos/\n"
            "  curl -s https://example.com/logo.png | cutlark-cli process --set trimEnabled=true - --stdout "
            "> "
            "logo.png\n");
    case Command::trace:
        return QStringLiteral(
            "Usage: cutlark-cli trace [OPTION]... -o OUT.svg INPUT\n"
            "Runs the image through the pipeline, then the trace the settings choose (silhouette,\n"
            "outline or full colour), and writes its SVG.\n"
            "\n"
            "  --set NAME=VALUE    a setting; repeatable\n"
            "  --preset FILE.json  settings from a JSON object\n"
            "  -o, --output FILE   the SVG to write (its folder is made when missing)\n"
            "  --stdout, -o -      write the SVG to standard output (the JSON then goes to standard\n"
            "                      error)\n"
            "\n"
            "INPUT \"-\" reads the image from standard input.\n"
            "\n"
            "Examples:\n"
            "  cutlark-cli trace --set vectorFullColor=true -o logo.svg logo.png\n"
            "  cutlark-cli trace --stdout - < logo.png > logo.svg\n");
    case Command::split:
        return QStringLiteral(
            "Usage: cutlark-cli split [-o DIR] INPUT...\n"
            "Writes each picture of a collage to a file of its own, from the untouched source, and\n"
            "prints their paths as JSON.\n"
            "\n"
            "  -o, --output DIR    write into DIR instead of beside each input\n"
            "\n"
            "Example:\n"
            "  cutlark-cli split -o pieces/ scans/\n");
    case Command::info:
        return QStringLiteral("Usage: cutlark-cli info [--max-megapixels N] INPUT...\n"
                              "Prints each image's type and size as JSON, without changing anything.\n"
                              "\n"
                              "  --max-megapixels N  open pictures of up to N megapixels whatever their "
                              "file's size\n");
    case Command::settings:
        return settingsHelp();
    case Command::help:
    case Command::version:
        break;
    }
    return usage();
}

QString CliOptions::settingsHelp() {
    QString text = QStringLiteral(
        "Usage: cutlark-cli settings\n"
        "Prints every setting's default as one JSON object, usable as a preset.\n"
        "\n"
        "Settings are given as --set NAME=VALUE or as a preset's keys. Each is listed with its type,\n"
        "range and unit, its default, the switch it needs to have any effect, and what it does.\n"
        "Booleans are true or false, colours #RRGGBB or #RRGGBBAA, rectangles x,y,w,h.\n\n");
    const QJsonObject defaults = Settings().toJson();
    for (const SettingInfo& row : Settings::table()) {
        const QString name = QLatin1String(row.name);
        QString kind = QLatin1String(row.type);
        if (row.isNumber()) {
            kind += QStringLiteral(" %1…%2").arg(row.minimum).arg(row.maximum);
            if (*row.unit) kind += QLatin1Char(' ') + QString::fromUtf8(row.unit);
        }
        QByteArray value =
            QJsonDocument(QJsonArray{defaults.value(name)}).toJson(QJsonDocument::Compact); // [value]
        value = value.mid(1, value.size() - 2);
        text += QStringLiteral("  %1 %2, default %3").arg(name, -20).arg(kind, QString::fromUtf8(value));
        if (*row.switchName) text += QStringLiteral("; needs %1").arg(QLatin1String(row.switchName));
        text += QStringLiteral("\n      %1\n").arg(QString::fromUtf8(row.meaning));
    }
    return text;
}

QString CliOptions::seeHelp(Command command) {
    switch (command) {
    case Command::process:
        return QStringLiteral("see cutlark-cli process --help");
    case Command::trace:
        return QStringLiteral("see cutlark-cli trace --help");
    case Command::split:
        return QStringLiteral("see cutlark-cli split --help");
    case Command::info:
        return QStringLiteral("see cutlark-cli info --help");
    default:
        return QStringLiteral("see cutlark-cli --help");
    }
}

namespace {

/// What an option's value must be, said when it is missing or isn't one.
QString valueNeeded(const QString& option) {
    if (option == QLatin1String("set")) return QStringLiteral("--set needs NAME=VALUE");
    if (option == QLatin1String("preset")) return QStringLiteral("--preset needs a file");
    if (option == QLatin1String("output")) return QStringLiteral("-o needs a folder");
    if (option == QLatin1String("jobs")) return QStringLiteral("--jobs needs a number from 1 to 256");
    if (option == QLatin1String("format"))
        return QStringLiteral("--format needs one of png, jpeg, webp, tiff, heic, gif, bmp");
    if (option == QLatin1String("quality")) return QStringLiteral("--quality needs a number from 1 to 100");
    if (option == QLatin1String("shard")) return QStringLiteral("--shard needs K/N, K from 0 to N−1");
    if (option == QLatin1String("max-megapixels"))
        return QStringLiteral("--max-megapixels needs a number from 1 to 100000");
    return QStringLiteral("--%1 needs a file").arg(option);
}

} // namespace

std::optional<QString> CliOptions::parse(const QStringList& arguments, CliOptions& out) {
    out = CliOptions();
    if (arguments.isEmpty()) return QStringLiteral("no command given");
    const QString& command = arguments.first();
    if (command == QLatin1String("settings"))
        out.command = Command::settings;
    else if (command == QLatin1String("info"))
        out.command = Command::info;
    else if (command == QLatin1String("process"))
        out.command = Command::process;
    else if (command == QLatin1String("trace"))
        out.command = Command::trace;
    else if (command == QLatin1String("split"))
        out.command = Command::split;
    else if (command == QLatin1String("help") || command == QLatin1String("--help") ||
             command == QLatin1String("-h"))
        out.command = Command::help;
    else if (command == QLatin1String("version") || command == QLatin1String("--version") ||
             command == QLatin1String("-V"))
        out.command = Command::version;
    else
        return QStringLiteral("unknown command “%1”").arg(command);

    // "help COMMAND" is that command's help.
    if (out.command == Command::help && arguments.size() > 1) {
        static const QList<QPair<QString, Command>> commands = {
            {QStringLiteral("process"), Command::process},
            {QStringLiteral("trace"), Command::trace},
            {QStringLiteral("split"), Command::split},
            {QStringLiteral("info"), Command::info},
            {QStringLiteral("settings"), Command::settings}};
        for (const auto& [name, which] : commands)
            if (arguments[1] == name) {
                out.command = which;
                out.help = true;
                return std::nullopt;
            }
        return QStringLiteral("no help on “%1”: the commands are process, trace, split, info and settings")
            .arg(arguments[1]);
    }
    // A command's help, whatever else is on the line.
    for (qsizetype i = 1; i < arguments.size() && arguments[i] != QLatin1String("--"); ++i) {
        if (arguments[i] == QLatin1String("--help") || arguments[i] == QLatin1String("-h")) {
            out.help = true;
            return std::nullopt;
        }
    }
    const bool takesOptions =
        out.command == Command::process || out.command == Command::trace || out.command == Command::split;
    // Qt's parser gives the forms Linux tools have: "--jobs 4", "--jobs=4", "-j4", "-j 4", "-oDIR",
    // "--" before inputs that start with "-", and "-" as an input. Every command that takes options
    // knows all of them; which ones make sense for it is checked below, in words about the command.
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsCompactedShortOptions);
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    const QCommandLineOption set(QStringLiteral("set"), QString(), QStringLiteral("NAME=VALUE"));
    const QCommandLineOption preset(QStringLiteral("preset"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption output({QStringLiteral("o"), QStringLiteral("output")}, QString(),
                                    QStringLiteral("DIR"));
    const QCommandLineOption jobs({QStringLiteral("j"), QStringLiteral("jobs")}, QString(),
                                  QStringLiteral("N"));
    const QCommandLineOption format(QStringLiteral("format"), QString(), QStringLiteral("TYPE"));
    const QCommandLineOption quality(QStringLiteral("quality"), QString(), QStringLiteral("N"));
    const QCommandLineOption shard(QStringLiteral("shard"), QString(), QStringLiteral("K/N"));
    const QCommandLineOption manifest(QStringLiteral("manifest"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption resume(QStringLiteral("resume"), QString(), QStringLiteral("FILE"));
    const QCommandLineOption inPlace(QStringLiteral("in-place"));
    const QCommandLineOption overwrite(QStringLiteral("overwrite"));
    const QCommandLineOption toStdout(QStringLiteral("stdout"));
    const QCommandLineOption strip(QStringLiteral("strip"));
    const QCommandLineOption keepMetadata(QStringLiteral("keep-metadata"));
    const QCommandLineOption maxMegapixels(QStringLiteral("max-megapixels"), QString(), QStringLiteral("N"));
    if (takesOptions)
        parser.addOptions({set, preset, output, jobs, format, quality, shard, manifest, resume, inPlace,
                           overwrite, toStdout, strip, keepMetadata});
    // Every command that reads pictures takes the one option that decides which pictures it reads.
    const bool readsPictures = takesOptions || out.command == Command::info;
    if (readsPictures) parser.addOption(maxMegapixels);
    for (const QCommandLineOption* o : {&inPlace, &overwrite, &toStdout, &strip, &keepMetadata}) {
        const QString given = QStringLiteral("--") + o->names().first();
        for (const QString& a : arguments.mid(1)) {
            if (a == QLatin1String("--")) break;
            if (takesOptions && a.startsWith(given + QLatin1Char('=')))
                return QStringLiteral("%1 takes no value").arg(given);
        }
    }
    // Qt's parser reads the program's name first.
    if (!parser.parse(QStringList{QStringLiteral("cutlark-cli")} + arguments.mid(1))) {
        const QStringList unknown = parser.unknownOptionNames();
        if (!unknown.isEmpty()) {
            const QString name =
                (unknown.first().size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + unknown.first();
            if (!takesOptions) return QStringLiteral("%1 takes no option “%2”").arg(command, name);
            return QStringLiteral("unknown option “%1”").arg(name);
        }
        // A value missing at the end of the line: the option's own message below says what it needs.
        const QString error = parser.errorText();
        for (const QCommandLineOption* o :
             {&set, &preset, &output, &jobs, &format, &quality, &shard, &manifest, &resume, &maxMegapixels})
            for (const QString& n : o->names())
                if (error.contains(QLatin1Char('\'') +
                                   (n.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + n +
                                   QLatin1Char('\'')))
                    return valueNeeded(o->names().last());
        return error;
    }
    // A switch given a value ("--stdout=x") is refused by Qt's parser already; a valued option's
    // value is read and checked here.
    const auto number = [&](const QCommandLineOption& o, int lo, int hi) -> std::optional<int> {
        bool ok = false;
        const int n = parser.value(o).toInt(&ok);
        if (!ok || n < lo || n > hi) return std::nullopt;
        return n;
    };
    // Only the commands that take options have them defined; asking the parser about one it doesn't
    // know makes Qt complain on standard error.
    bool metadataGiven = false;
    if (readsPictures && parser.isSet(maxMegapixels)) {
        bool ok = false;
        const double n = parser.value(maxMegapixels).toDouble(&ok);
        if (!ok || !(n >= 1 && n <= 100000)) return valueNeeded(QStringLiteral("max-megapixels"));
        out.maxMegapixels = n;
    }
    if (takesOptions) {
        for (const QString& v : parser.values(set)) {
            const qsizetype eq = v.indexOf(QLatin1Char('='));
            if (eq <= 0) return QStringLiteral("--set needs NAME=VALUE, got “%1”").arg(v);
            out.sets.append({v.left(eq).trimmed(), v.mid(eq + 1)});
        }
        if (parser.isSet(preset)) out.presetPath = parser.value(preset);
        if (parser.isSet(output)) {
            out.outputDir = parser.value(output);
            if (out.outputDir.isEmpty()) return valueNeeded(QStringLiteral("output"));
        }
        if (parser.isSet(jobs)) {
            const auto n = number(jobs, 1, 256);
            if (!n) return valueNeeded(QStringLiteral("jobs"));
            out.jobs = *n;
        }
        if (parser.isSet(format)) {
            const QString type = ImageFile::typeForExtension(parser.value(format).toLower());
            if (type.isEmpty() || !ImageFile::encodableTypes().contains(type))
                return valueNeeded(QStringLiteral("format"));
            out.format = type;
        }
        if (parser.isSet(quality)) {
            const auto q = number(quality, 1, 100);
            if (!q) return valueNeeded(QStringLiteral("quality"));
            out.quality = *q;
        }
        if (parser.isSet(shard)) {
            const auto sliced = Shard::parse(parser.value(shard));
            if (!sliced) return valueNeeded(QStringLiteral("shard"));
            out.shard = *sliced;
        }
        if (parser.isSet(manifest)) {
            out.manifestPath = parser.value(manifest);
            if (out.manifestPath.isEmpty()) return valueNeeded(QStringLiteral("manifest"));
        }
        if (parser.isSet(resume)) {
            out.resumePath = parser.value(resume);
            if (out.resumePath.isEmpty()) return valueNeeded(QStringLiteral("resume"));
        }
        out.inPlace = parser.isSet(inPlace);
        out.overwrite = parser.isSet(overwrite);
        out.toStdout = parser.isSet(toStdout);
        // The later of --strip and --keep-metadata wins, as with any pair of switches.
        for (const QString& name : parser.optionNames()) {
            if (name == QLatin1String("strip") || name == QLatin1String("keep-metadata")) {
                out.strip = name == QLatin1String("strip");
                metadataGiven = true;
            }
        }
    }
    out.inputs = parser.positionalArguments();
    if (out.outputDir == QLatin1String("-")) { // "-o -" is standard output, not a folder named "-"
        out.outputDir.clear();
        out.toStdout = true;
    }
    if (out.toStdout && out.command == Command::split)
        return QStringLiteral("split writes a file for each piece; --stdout isn’t for it");
    if (out.toStdout && out.inPlace) return QStringLiteral("--stdout and --in-place exclude each other");
    if (out.toStdout && !out.outputDir.isEmpty())
        return QStringLiteral("--stdout and -o DIR exclude each other");
    if (out.inPlace && !out.outputDir.isEmpty())
        return QStringLiteral("-o and --in-place exclude each other");
    if (out.inputs.count(QStringLiteral("-")) > 1)
        return QStringLiteral("standard input (“-”) can be read only once");
    if (out.command == Command::process && out.inputs.contains(QStringLiteral("-")) && !out.toStdout &&
        out.outputDir.isEmpty())
        return QStringLiteral("the result of standard input (“-”) needs --stdout or -o DIR");
    if (out.command != Command::settings && out.command != Command::help && out.command != Command::version &&
        out.inputs.isEmpty())
        return QStringLiteral("no input given");
    if (out.command != Command::process && (!out.format.isEmpty() || out.quality > 0))
        return QStringLiteral("--format and --quality are for process");
    if (out.command != Command::process && metadataGiven)
        return QStringLiteral("--strip and --keep-metadata are for process");
    if (out.command != Command::process &&
        (out.shard.count > 1 || !out.manifestPath.isEmpty() || !out.resumePath.isEmpty()))
        return QStringLiteral("--shard, --manifest and --resume are for process");
    if (out.manifestPath.isEmpty()) out.manifestPath = out.resumePath; // a resumed run goes on recording
    if (out.toStdout && !out.manifestPath.isEmpty())
        return QStringLiteral("--manifest and --resume record files written, not --stdout");
    if (out.command == Command::split && (out.inPlace || !out.sets.isEmpty() || !out.presetPath.isEmpty()))
        return QStringLiteral("split takes only -o DIR: the pieces come from the untouched source");
    if (out.command == Command::trace) {
        if (out.inputs.size() != 1) return QStringLiteral("trace takes one input");
        if (out.outputDir.isEmpty() && !out.toStdout)
            return QStringLiteral("trace needs -o OUT.svg or --stdout");
        out.svgPath = std::exchange(out.outputDir, QString()); // trace's -o names a file, not a folder
        if (out.inPlace || out.jobs != 0) return QStringLiteral("trace takes neither --in-place nor --jobs");
    }
    return std::nullopt;
}

} // namespace cutlark
