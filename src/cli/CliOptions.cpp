#include "cli/CliOptions.h"

#include "model/ImageFile.h"
#include "model/Settings.h"

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
            "                      to upright and sizes to the result's (the default; JPEG, PNG, WebP\n"
            "                      and TIFF results hold them, GIF, BMP and HEIC results don't)\n"
            "  --strip             write results without the input's EXIF and XMP\n"
            "  --stdout, -o -      write the one result to standard output (the JSON then goes to\n"
            "                      standard error)\n"
            "  -j, --jobs N        images at once (default: the cores this process may use)\n"
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
        return QStringLiteral("Usage: cutlark-cli info INPUT...\n"
                              "Prints each image's type and size as JSON, without changing anything.\n");
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
    bool onlyInputs = false;
    bool metadataGiven = false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        QString a = arguments[i];
        if (onlyInputs || !a.startsWith(QLatin1Char('-')) || a == QLatin1String("-")) {
            out.inputs << a;
            continue;
        }
        if (a == QLatin1String("--")) {
            onlyInputs = true;
            continue;
        }
        // "--name=value" and "-xVALUE" carry their value with them.
        std::optional<QString> attached;
        if (a.startsWith(QLatin1String("--"))) {
            const qsizetype eq = a.indexOf(QLatin1Char('='));
            if (eq > 2) {
                attached = a.mid(eq + 1);
                a = a.left(eq);
            }
        } else if (a.size() > 2 && (a.startsWith(QLatin1String("-j")) || a.startsWith(QLatin1String("-o")))) {
            attached = a.mid(2);
            a = a.left(2);
        }
        auto value = [&]() -> std::optional<QString> {
            if (attached) return attached;
            if (i + 1 >= arguments.size()) return std::nullopt;
            return arguments[++i];
        };
        // The option's value as a whole number from lo to hi; absent when it isn't one.
        auto number = [&](int lo, int hi) -> std::optional<int> {
            const auto v = value();
            bool ok = false;
            const int n = v ? v->toInt(&ok) : 0;
            if (!ok || n < lo || n > hi) return std::nullopt;
            return n;
        };
        if (!takesOptions) return QStringLiteral("%1 takes no option “%2”").arg(command, a);
        if (a == QLatin1String("--set")) {
            const auto v = value();
            if (!v) return QStringLiteral("--set needs NAME=VALUE");
            const qsizetype eq = v->indexOf(QLatin1Char('='));
            if (eq <= 0) return QStringLiteral("--set needs NAME=VALUE, got “%1”").arg(*v);
            out.sets.append({v->left(eq).trimmed(), v->mid(eq + 1)});
        } else if (a == QLatin1String("--preset")) {
            const auto v = value();
            if (!v) return QStringLiteral("--preset needs a file");
            out.presetPath = *v;
        } else if (a == QLatin1String("-o") || a == QLatin1String("--output")) {
            const auto v = value();
            if (!v || v->isEmpty()) return QStringLiteral("-o needs a folder");
            out.outputDir = *v;
        } else if (a == QLatin1String("--jobs") || a == QLatin1String("-j")) {
            const auto n = number(1, 256);
            if (!n) return QStringLiteral("--jobs needs a number from 1 to 256");
            out.jobs = *n;
        } else if (a == QLatin1String("--format")) {
            const auto v = value();
            const QString type = v ? ImageFile::typeForExtension(v->toLower()) : QString();
            if (type.isEmpty() || !ImageFile::encodableTypes().contains(type))
                return QStringLiteral("--format needs one of png, jpeg, webp, tiff, heic, gif, bmp");
            out.format = type;
        } else if (a == QLatin1String("--quality")) {
            const auto q = number(1, 100);
            if (!q) return QStringLiteral("--quality needs a number from 1 to 100");
            out.quality = *q;
        } else if (a == QLatin1String("--shard")) {
            const auto v = value();
            const auto shard = v ? Shard::parse(*v) : std::nullopt;
            if (!shard) return QStringLiteral("--shard needs K/N, K from 0 to N−1");
            out.shard = *shard;
        } else if (a == QLatin1String("--manifest") || a == QLatin1String("--resume")) {
            const auto v = value();
            if (!v || v->isEmpty()) return QStringLiteral("%1 needs a file").arg(a);
            (a == QLatin1String("--manifest") ? out.manifestPath : out.resumePath) = *v;
        } else if (attached) {
            return QStringLiteral("%1 takes no value").arg(a);
        } else if (a == QLatin1String("--in-place")) {
            out.inPlace = true;
        } else if (a == QLatin1String("--overwrite")) {
            out.overwrite = true;
        } else if (a == QLatin1String("--stdout")) {
            out.toStdout = true;
        } else if (a == QLatin1String("--strip") || a == QLatin1String("--keep-metadata")) {
            out.strip = a == QLatin1String("--strip"); // the later of the two wins, as with any switch
            metadataGiven = true;
        } else {
            return QStringLiteral("unknown option “%1”").arg(a);
        }
    }
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
