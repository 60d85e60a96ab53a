// The help of cutlark-cli: each command's words and examples around its options, which come from
// the options' table, so that the usage, the man pages and the completion never drift apart.
#include "cli/CliOptions.h"

#include "model/Settings.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace cutlark {

namespace {

// The options the command takes, as the usage lists them: the form, then the help at column 22.
QString optionLines(CliOptions::Command command) {
    QString text;
    for (const CliOptions::Option& o : CliOptions::options()) {
        if (!(o.commands & CliOptions::commandBit(command))) continue;
        QString form = *o.shortName ? QStringLiteral("-%1, ").arg(QLatin1String(o.shortName)) : QString();
        form += QStringLiteral("--") + QLatin1String(o.name);
        if (*o.placeholder) form += QLatin1Char(' ') + QLatin1String(o.placeholder);
        const QStringList lines = QString::fromUtf8(o.help).split(QLatin1Char('\n'));
        text +=
            QStringLiteral("  %1").arg(form, -19) +
            (form.size() > 19 ? QStringLiteral("\n") + QString(22, QLatin1Char(' ')) : QStringLiteral(" "));
        text += lines.join(QStringLiteral("\n") + QString(22, QLatin1Char(' '))) + QLatin1Char('\n');
    }
    return text;
}

} // namespace

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
                   "object per input.\n\n") +
               optionLines(command) +
               QStringLiteral(
                   "\n"
                   "INPUT \"-\" reads one image from standard input; its result needs --stdout or -o DIR\n"
                   "(where it is called stdin-out.<ext>).\n"
                   "\n"
                   "Examples:\n"
                   "  cutlark-cli process --set keyWhiteEnabled=true --set trimEnabled=true photos/\n"
                   "  cutlark-cli process --preset sticker.json -o out/ -j4 *.png\n"
                   "  cutlark-cli process --preset look.json -o out/ --shard \"$SLURM_ARRAY_TASK_ID/16\" \\\n"
                   "      --resume \"done-$SLURM_ARRAY_TASK_ID.jsonl\" photos/\n"
                   "  curl -s https://example.com/logo.png | cutlark-cli process --set trimEnabled=true - "
                   "--stdout "
                   "> logo.png\n");
    case Command::trace:
        return QStringLiteral(
                   "Usage: cutlark-cli trace [OPTION]... -o OUT.svg INPUT\n"
                   "Runs the image through the pipeline, then the trace the settings choose (silhouette,\n"
                   "outline or full colour), and writes its SVG.\n\n") +
               optionLines(command) +
               QStringLiteral("\n"
                              "INPUT \"-\" reads the image from standard input.\n"
                              "\n"
                              "Examples:\n"
                              "  cutlark-cli trace --set vectorFullColor=true -o logo.svg logo.png\n"
                              "  cutlark-cli trace --stdout - < logo.png > logo.svg\n");
    case Command::split:
        return QStringLiteral(
                   "Usage: cutlark-cli split [-o DIR] INPUT...\n"
                   "Writes each picture of a collage to a file of its own, from the untouched source, and\n"
                   "prints their paths as JSON.\n\n") +
               optionLines(command) +
               QStringLiteral("\n"
                              "Example:\n"
                              "  cutlark-cli split -o pieces/ scans/\n");
    case Command::info:
        return QStringLiteral("Usage: cutlark-cli info [OPTION]... INPUT...\n"
                              "Prints each image's type and size as JSON, without changing anything.\n\n") +
               optionLines(command);
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

} // namespace cutlark
