#pragma once

#include "support/HandOff.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QPointer>
#include <QtConcurrent/QtConcurrentRun>
#include <QThreadPool>

#include <memory>
#include <utility>

namespace cutlark {

/// Runs `work(task)` on the global thread pool, then `done(owner, task)` back on the main thread by
/// a queued call, or nothing when `owner` is gone by then. The task is owned by one thread at a
/// time: `work` should let go of whatever it shares with the owner (a picture, a function) before
/// it returns, since the task then travels back. Work already running is never cancelled.
/// `pool` runs it: the global pool unless the owner needs to wait for its own work alone.
template <class Owner, class Task, class Work, class Done>
void runOffThread(Owner* owner, std::unique_ptr<Task> task, Work work, Done done,
                  QThreadPool* pool = QThreadPool::globalInstance()) {
    QPointer<Owner> self(owner);
    // The first capture of each closure receives and the last passes on, whenever Qt moves it.
    (void)QtConcurrent::run(pool, [in = HandOff(), self, task = std::move(task), work = std::move(work),
                                   done = std::move(done), out = HandOff()]() mutable {
        const auto turn = HandOff::received();
        work(*task);
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [in = HandOff(), self, task = std::move(task), done = std::move(done),
             out = HandOff()]() mutable {
                const auto turn = HandOff::received();
                if (self) done(*self, *task);
            },
            Qt::QueuedConnection);
    });
}

} // namespace cutlark
