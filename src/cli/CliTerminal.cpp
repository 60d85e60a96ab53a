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

void CliTerminal::progress(qsizetype done, qsizetype total) {
    if (!isatty(fileno(m_err)) || total <= 0) return;
    const int width = 30;
    const int filled = int(width * done / total);
    std::fprintf(m_err, "\r[%s%s] %lld/%lld", QByteArray(filled, '#').constData(),
                 QByteArray(width - filled, ' ').constData(), static_cast<long long>(done),
                 static_cast<long long>(total));
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

int CliTerminal::reportFailures(const QStringList& failures) {
    if (failures.isEmpty()) return 0;
    for (const QString& f : failures)
        std::fprintf(m_err, "cutlark-cli: %s\n", qPrintable(f));
    return 1;
}

} // namespace cutlark
