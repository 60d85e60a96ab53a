#include "cli/CliTerminal.h"

#include <QJsonDocument>

#include <unistd.h>

namespace cutlark {

void CliTerminal::print(const QJsonObject& object, FILE* to) {
    if (!to) to = m_out;
    clearProgress();
    const QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact);
    std::fwrite(line.constData(), 1, size_t(line.size()), to);
    std::fputc('\n', to);
    std::fflush(to);
}

namespace {

// "42 s", "3:05", "1:02:09": a span as a clock shows it.
QByteArray span(qint64 seconds) {
    if (seconds < 60) return QByteArray::number(seconds) + " s";
    const qint64 h = seconds / 3600, m = seconds / 60 % 60, s = seconds % 60;
    const QByteArray ms = QByteArray::number(m).rightJustified(h > 0 ? 2 : 1, '0') + ':' +
                          QByteArray::number(s).rightJustified(2, '0');
    return h > 0 ? QByteArray::number(h) + ':' + ms : ms;
}

QByteArray rate(double perSecond) {
    return QByteArray::number(perSecond, 'f', perSecond < 10 ? 1 : 0);
}

} // namespace

QByteArray CliTerminal::barText(qsizetype done, qsizetype total, qint64 elapsedMs) {
    const int width = 30;
    const int filled = total > 0 ? int(width * done / total) : width;
    QByteArray text = '[' + QByteArray(filled, '#') + QByteArray(width - filled, ' ') + "] " +
                      QByteArray::number(done) + '/' + QByteArray::number(total);
    // Said once there is something to measure: a rate over the first instant would be noise.
    const double seconds = double(elapsedMs) / 1000.0;
    if (done > 0 && seconds >= 1.0) {
        const double perSecond = double(done) / seconds;
        text += "  " + rate(perSecond) + " images/s  " +
                span(qint64(double(total - done) / perSecond + 0.5)) + " left";
    }
    return text;
}

void CliTerminal::progress(qsizetype done, qsizetype total) {
    if (!m_started.isValid()) m_started.start();
    if (!isatty(fileno(m_err)) || total <= 0) return;
    std::fprintf(m_err, "\r%s\033[K", barText(done, total, m_started.elapsed()).constData());
    m_barShown = true;
    std::fflush(m_err);
}

void CliTerminal::endProgress() {
    if (!m_barShown) return;
    std::fputc('\n', m_err); // the finished bar stays, above whatever comes next
    std::fflush(m_err);
    m_barShown = false;
}

void CliTerminal::clearProgress() {
    if (!m_barShown) return;
    std::fputs("\r\033[K", m_err); // back to the line's start and erase it, for the line to come
    std::fflush(m_err);
    m_barShown = false;
}

void CliTerminal::summary(int written, int skipped, int failed, qsizetype worked, qint64 elapsedMs) {
    clearProgress();
    const double seconds = double(elapsedMs) / 1000.0;
    const QByteArray perSecond = seconds > 0 ? rate(double(worked) / seconds) : QByteArray("–");
    std::fprintf(m_err, "cutlark-cli: %d written, %d skipped, %d failed in %s s (%s images/s)\n", written,
                 skipped, failed, QByteArray::number(seconds, 'f', 1).constData(), perSecond.constData());
    std::fflush(m_err);
}

int CliTerminal::reportFailures(const QStringList& failures) {
    if (failures.isEmpty()) return 0;
    for (const QString& f : failures)
        std::fprintf(m_err, "cutlark-cli: %s\n", qPrintable(f));
    return 1;
}

} // namespace cutlark
