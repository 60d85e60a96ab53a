// The help of cutlark-cli: each command's words and examples around its options, which come from
// the options' table, so that the usage, the man pages and the completion never drift apart.
#include "cli/CliOptions.h"

#include "model/Settings.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace cutlark {

namespace {

// One option as the usage lists it: the form, then the help at column 22.
QString optionLine(const CliOptions::Option& o) {
    QString form = *o.shortName ? QStringLiteral("-%1, ").arg(QLatin1String(o.shortName)) : QString();
    form += QStringLiteral("--") + QLatin1String(o.name);
    if (*o.placeholder) form += QLatin1Char(' ') + QLatin1String(o.placeholder);
    const QStringList lines = QString::fromUtf8(o.help).split(QLatin1Char('\n'));
    return QStringLiteral("  %1").arg(form, -19) +
           (form.size() > 19 ? QStringLiteral("\n") + QString(22, QLatin1Char(' ')) : QStringLiteral(" ")) +
           lines.join(QStringLiteral("\n") + QString(22, QLatin1Char(' '))) + QLatin1Char('\n');
}

// The options the command takes.
QString optionLines(CliOptions::Command command) {
    QString text;
    for (const CliOptions::Option& o : CliOptions::options())
        if (o.commands & CliOptions::commandBit(command)) text += optionLine(o);
    return text;
}

// Every option once (its first row), its help as the commands' help gives it, then the commands
// that take it.
QString allOptionLines() {
    QString text;
    QStringList seen;
    for (const CliOptions::Option& o : CliOptions::options()) {
        if (seen.contains(QLatin1String(o.name))) continue;
        seen << QLatin1String(o.name);
        unsigned bits = 0;
        for (const CliOptions::Option& same : CliOptions::options())
            if (QLatin1String(same.name) == QLatin1String(o.name)) bits |= same.commands;
        text += optionLine(o);
        text += QString(22, QLatin1Char(' ')) +
                QStringLiteral("(%1)\n").arg(CliOptions::commandsTaking(bits, QStringLiteral(", ")));
    }
    return text;
}

} // namespace

QString CliOptions::usage() {
    return QStringLiteral(
               "Usage:\n"
               "  cutlark-cli process [OPTION]... INPUT...\n"
               "  cutlark-cli trace [OPTION]... INPUT...\n"
               "  cutlark-cli split [OPTION]... INPUT...\n"
               "  cutlark-cli info [OPTION]... INPUT...\n"
               "  cutlark-cli manifest [--json] MANIFEST...\n"
               "  cutlark-cli settings\n"
               "  cutlark-cli help [COMMAND | settings]\n"
               "\n"
               "INPUT may be an image file, a folder (its images in name order; with -r its subfolders'\n"
               "too) or - for standard input; --files-from reads more from a list. process writes\n"
               "<stem>-out.<ext> beside each input, or below DIR with -o DIR (a folder named keeps its\n"
               "place there, as cp -r keeps it), or over the input with --in-place, and prints one JSON\n"
               "object per input. A result's name depends on its input alone: two inputs that would\n"
               "share one are both refused. A result that exists already is left alone unless\n"
               "--overwrite is given. trace runs the same pipeline, then the trace the settings choose\n"
               "(silhouette, outline or full colour), and writes its SVG. manifest sums up the\n"
               "manifests of a run's shards.\n"
               "\n"
               "Options (and the commands that take each):\n") +
           allOptionLines() +
           QStringLiteral(
               "\n"
               "Settings are named as `cutlark-cli help settings` lists them; `cutlark-cli COMMAND\n"
               "--help` tells more.\n");
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
                   "object per input and, at the end, a line of counts on standard error.\n\n") +
               optionLines(command) +
               QStringLiteral(
                   "\n"
                   "A result is <stem>-out.<ext> beside its input, or below -o DIR at the input's place: a\n"
                   "folder named keeps its name there (photos/2024/a.jpg given as photos gives\n"
                   "DIR/photos/2024/a-out.jpg), a file named directly goes straight in. With one input, -o\n"
                   "NAME.png (or any image type's extension) is the file to write. Two inputs that would\n"
                   "share a result are both refused. INPUT \"-\" reads one image from standard input; its\n"
                   "result needs --stdout or -o DIR (where it is called stdin-out.<ext>).\n"
                   "\n"
                   "Examples:\n"
                   "  cutlark-cli process --set keyWhiteEnabled=true --set trimEnabled=true photos/\n"
                   "  cutlark-cli process --preset sticker.json -o out/ -j4 *.png\n"
                   "  cutlark-cli process -r --preset look.json -o out/ catalogue/\n"
                   "  find shop -name '*.jpg' -newer last-run -print0 |\n"
                   "      cutlark-cli process --files-from - -0 --preset look.json -o out/\n"
                   "  cutlark-cli process --preset look.json -o out/ --shard \"$SLURM_ARRAY_TASK_ID/16\" \\\n"
                   "      --resume \"manifests/$SLURM_ARRAY_TASK_ID.jsonl\" photos/\n"
                   "  curl -s https://example.com/logo.png | cutlark-cli process --set trimEnabled=true - "
                   "--stdout "
                   "> logo.png\n");
    case Command::trace:
        return QStringLiteral(
                   "Usage: cutlark-cli trace [OPTION]... INPUT...\n"
                   "Runs each image through the pipeline, then the trace the settings choose (silhouette,\n"
                   "outline or full colour), and writes its SVG: <stem>.svg beside the input, or below -o\n"
                   "DIR as process places its results. One JSON object per input, failures included.\n\n") +
               optionLines(command) +
               QStringLiteral("\n"
                              "INPUT \"-\" reads the image from standard input.\n"
                              "\n"
                              "Examples:\n"
                              "  cutlark-cli trace --set vectorFullColor=true -o logo.svg logo.png\n"
                              "  cutlark-cli trace -r -o svg/ logos/\n"
                              "  cutlark-cli trace --stdout - < logo.png > logo.svg\n");
    case Command::split:
        return QStringLiteral(
                   "Usage: cutlark-cli split [OPTION]... INPUT...\n"
                   "Writes each picture of a collage to a file of its own (<stem>-1.<ext>, "
                   "<stem>-2.<ext>…),\n"
                   "from the untouched source, and prints their paths as JSON. A collage split before is\n"
                   "left as it is unless --overwrite is given.\n\n") +
               optionLines(command) +
               QStringLiteral("\n"
                              "Example:\n"
                              "  cutlark-cli split -o pieces/ scans/\n");
    case Command::info:
        return QStringLiteral("Usage: cutlark-cli info [OPTION]... INPUT...\n"
                              "Prints each image's type and size as JSON, without changing anything.\n\n") +
               optionLines(command);
    case Command::manifest:
        return QStringLiteral(
                   "Usage: cutlark-cli manifest [--json] MANIFEST...\n"
                   "Sums up the manifests that a run's shards wrote with --manifest or --resume: how many\n"
                   "inputs are done, skipped and failed, and each failed input with its error. Each input's\n"
                   "last record decides. Exits 1 when any input failed.\n\n") +
               optionLines(command) +
               QStringLiteral("\n"
                              "Example:\n"
                              "  cutlark-cli manifest manifests/*.jsonl\n");
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
    case Command::manifest:
        return QStringLiteral("see cutlark-cli manifest --help");
    default:
        return QStringLiteral("see cutlark-cli --help");
    }
}

} // namespace cutlark
