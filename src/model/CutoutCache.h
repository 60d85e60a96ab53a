#pragma once

#include "engines/SubjectNetwork.h"

#include <QHash>
#include <QImage>
#include <QSet>
#include <QUuid>

#include <optional>

namespace cutlark {

/// The subject cutouts of a queue's items, by item: the ones found, the items tried (found or not),
/// and the items whose cutout is being computed. A plain value, owned by the model on the main
/// thread; the work itself runs elsewhere and comes back through `finish`.
class CutoutCache {
public:
    /// The cutout found for `id`; null when there is none (not tried, running, or no subject).
    QImage cutout(const QUuid& id) const { return m_cutouts.value(id); }
    bool attempted(const QUuid& id) const { return m_attempted.contains(id); }
    bool computing(const QUuid& id) const { return m_computing.contains(id); }
    /// Tried and done, and nothing found.
    bool notFound(const QUuid& id) const {
        return m_attempted.contains(id) && !m_cutouts.contains(id) && !m_computing.contains(id);
    }

    /// The network the cutouts are of. Choosing another forgets them all: each item is cut out
    /// again when it is shown; a cutout still running for the old one is dropped when it comes back.
    const SubjectNetwork& network() const { return m_network; }
    void setNetwork(const SubjectNetwork& network) {
        if (network == m_network) return;
        m_network = network;
        m_cutouts.clear();
        m_attempted.clear();
        m_computing.clear();
    }

    /// A cutout for `id` has started.
    void start(const QUuid& id) { m_computing.insert(id); }
    /// The cutout for `id` has come back, with what `network` found; dropped when it isn't the
    /// network of the cache any more.
    void finish(const QUuid& id, const SubjectNetwork& network, const std::optional<QImage>& cutout) {
        if (!(network == m_network)) return;
        m_computing.remove(id);
        m_attempted.insert(id);
        if (cutout) m_cutouts.insert(id, *cutout);
    }
    /// Forgets `id` (its source changed, or it left the queue): a new cutout is needed. A cutout
    /// still running for it is never cancelled; when it comes back it is kept like any other.
    void forget(const QUuid& id) {
        m_cutouts.remove(id);
        m_attempted.remove(id);
        m_computing.remove(id);
    }

    const QHash<QUuid, QImage>& cutouts() const { return m_cutouts; }
    const QSet<QUuid>& attemptedItems() const { return m_attempted; }
    const QSet<QUuid>& computingItems() const { return m_computing; }

private:
    SubjectNetwork m_network;
    QHash<QUuid, QImage> m_cutouts;
    QSet<QUuid> m_attempted;
    QSet<QUuid> m_computing;
};

} // namespace cutlark
