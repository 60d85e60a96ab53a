#pragma once

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QSet>
#include <QString>

#include <optional>
#include <utility>

namespace cutlark {

/// The record of a batch that lets an interrupted run be resumed: one JSON object per line,
/// appended and flushed to disk only after the input's result is on disk, with the hash of the
/// settings it was made with. A line cut short by a crash is ignored when read back.
class Manifest {
public:
    Manifest(const Manifest&) = delete;
    Manifest& operator=(const Manifest&) = delete;
    Manifest(Manifest&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Manifest& operator=(Manifest&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Manifest();

    /// What the manifests of a run's slices say together: each input's last record decides.
    struct Summary {
        int manifests = 0;
        QHash<QString, QJsonObject> last; ///< by input
        QStringList order;                ///< inputs in the order first recorded
        int count(const QString& status) const;
        int failed() const { return count(QStringLiteral("failed")); }
        /// {"manifests","inputs","done","skipped","failed","settings","failures":[{"input","error"}]}
        QJsonObject toJson() const;
        /// The same for a person: a line of counts, then one line per failed input.
        QString text() const;
    };

    /// Opens `path` for appending, made (with its folder) when missing; absent with `error` set
    /// when it can't be.
    static std::optional<Manifest> open(const QString& path, QString& error);
    /// Appends `line` and waits until it is on disk; false when it couldn't be written.
    bool append(const QJsonObject& line);

    /// The inputs `path` records as done with settings `settingsHash`; empty when the file is
    /// missing. `error` is set when it exists but can't be read.
    /// Their records, by input.
    static QHash<QString, QJsonObject> done(const QString& path, const QString& settingsHash, QString& error);
    /// Adds what `path` records to `summary`; `error` is set when it can't be read.
    static void summarize(const QString& path, Summary& summary, QString& error);

    /// Makes the folder holding `path` durable, so a rename into it survives a crash.
    static bool syncFolderOf(const QString& path);

private:
    explicit Manifest(int fd) : m_fd(fd) {}
    int m_fd = -1;
};

} // namespace cutlark
