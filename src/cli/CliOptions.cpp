#include "cli/CliOptions.h"

#include <utility>

namespace cutlark {

QString CliOptions::usage() {
    return QStringLiteral(
        "Usage:\n"
        "  cutlark-cli process [--set NAME=VALUE]... [--preset FILE.json] [-o DIR | --in-place] "
        "[--overwrite] [--jobs N] INPUT...\n"
        "  cutlark-cli trace [--set NAME=VALUE]... [--preset FILE.json] -o OUT.svg INPUT\n"
        "  cutlark-cli split [-o DIR] INPUT...\n"
        "  cutlark-cli info INPUT...\n"
        "  cutlark-cli settings\n"
        "\n"
        "INPUT may be an image file or a folder (its images, in name order).\n"
        "process writes <stem>-out.<ext> beside each input, or into DIR, or over the input with --in-place,\n"
        "and prints one JSON object per input. A result that exists already is left alone unless "
        "--overwrite\n"
        "is given; two inputs never share an output (the later one gets <stem>-out-2.<ext>). trace runs the "
        "same pipeline, then the trace the settings\n"
        "choose (silhouette, outline or full colour), and writes its SVG. Settings are named as\n"
        "`cutlark-cli settings` lists them.\n");
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
    else
        return QStringLiteral("unknown command “%1”").arg(command);

    const bool takesOptions =
        out.command == Command::process || out.command == Command::trace || out.command == Command::split;
    bool onlyInputs = false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        auto value = [&](const QString& option) -> std::optional<QString> {
            if (i + 1 >= arguments.size()) return std::nullopt;
            Q_UNUSED(option);
            return arguments[++i];
        };
        if (onlyInputs || !a.startsWith(QLatin1Char('-')) || a == QLatin1String("-")) {
            out.inputs << a;
            continue;
        }
        if (a == QLatin1String("--")) {
            onlyInputs = true;
            continue;
        }
        if (!takesOptions) return QStringLiteral("%1 takes no option “%2”").arg(command, a);
        if (a == QLatin1String("--set")) {
            const auto v = value(a);
            if (!v) return QStringLiteral("--set needs NAME=VALUE");
            const qsizetype eq = v->indexOf(QLatin1Char('='));
            if (eq <= 0) return QStringLiteral("--set needs NAME=VALUE, got “%1”").arg(*v);
            out.sets.append({v->left(eq).trimmed(), v->mid(eq + 1)});
        } else if (a == QLatin1String("--preset")) {
            const auto v = value(a);
            if (!v) return QStringLiteral("--preset needs a file");
            out.presetPath = *v;
        } else if (a == QLatin1String("-o") || a == QLatin1String("--output")) {
            const auto v = value(a);
            if (!v) return QStringLiteral("-o needs a folder");
            out.outputDir = *v;
        } else if (a == QLatin1String("--in-place")) {
            out.inPlace = true;
        } else if (a == QLatin1String("--overwrite")) {
            out.overwrite = true;
        } else if (a == QLatin1String("--jobs") || a == QLatin1String("-j")) {
            const auto v = value(a);
            bool ok = false;
            const int n = v ? v->toInt(&ok) : 0;
            if (!ok || n < 1 || n > 256) return QStringLiteral("--jobs needs a number from 1 to 256");
            out.jobs = n;
        } else {
            return QStringLiteral("unknown option “%1”").arg(a);
        }
    }
    if (out.inPlace && !out.outputDir.isEmpty())
        return QStringLiteral("-o and --in-place exclude each other");
    if (out.command != Command::settings && out.command != Command::help && out.inputs.isEmpty())
        return QStringLiteral("no input given");
    if (out.command == Command::split && (out.inPlace || !out.sets.isEmpty() || !out.presetPath.isEmpty()))
        return QStringLiteral("split takes only -o DIR: the pieces come from the untouched source");
    if (out.command == Command::trace) {
        if (out.inputs.size() != 1) return QStringLiteral("trace takes one input");
        if (out.outputDir.isEmpty()) return QStringLiteral("trace needs -o OUT.svg");
        out.svgPath = std::exchange(out.outputDir, QString()); // trace's -o names a file, not a folder
        if (out.inPlace || out.jobs != 1) return QStringLiteral("trace takes neither --in-place nor --jobs");
    }
    return std::nullopt;
}

} // namespace cutlark
