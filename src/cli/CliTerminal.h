#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QStringList>

#include <cstdio>

namespace cutlark {

/// What a run shows: one JSON line per input on standard output (or standard error when the result
/// itself goes to standard output), a bar on standard error while it is a terminal, and the failed
/// inputs named at the end.
class CliTerminal {
public:
    CliTerminal(FILE* out, FILE* err) : m_out(out), m_err(err) {}

    FILE* out() const { return m_out; }
    FILE* err() const { return m_err; }

    /// One JSON line to standard output, or to `to`, on a line of its own (the bar gives way).
    void print(const QJsonObject& object, FILE* to = nullptr);
    /// The bar, when standard error is a terminal: `done` of `total`, how many a second since the
    /// first call and the time left at that rate.
    void progress(qsizetype done, qsizetype total);
    /// The bar's text: "[#####     ] 5/10  2.5 images/s  2 s left" (the rate and time left once a
    /// second has passed).
    static QByteArray barText(qsizetype done, qsizetype total, qint64 elapsedMs);
    /// Takes the bar away so that a line printed next starts clean.
    void clearProgress();
    /// Ends the bar's line, once every line of the run is printed.
    void endProgress();
    /// The run in one line on standard error: results written, left as they were, failed, the time
    /// taken and how many of the `worked` inputs went through a second.
    void summary(int written, int skipped, int failed, qsizetype worked, qint64 elapsedMs);
    /// Names each failure on standard error; the exit code: 1 when there were any, else 0.
    int reportFailures(const QStringList& failures);

private:
    FILE* m_out;
    FILE* m_err;
    bool m_barShown = false;
    QElapsedTimer m_started;
};

} // namespace cutlark
