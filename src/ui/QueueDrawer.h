#pragma once

#include "model/CropModel.h"

#include <QHash>
#include <QIcon>
#include <QPair>
#include <QPointer>
#include <QUuid>
#include <QWidget>

class QLabel;
class QListWidget;
class QToolButton;

namespace cutlark {

/// The queue column: every opened image with its thumbnail and saved mark, the saved count, and Add
/// and Remove. Its selection is the model's active item itself.
class QueueDrawer : public QWidget {
    Q_OBJECT

public:
    explicit QueueDrawer(CropModel* model, QWidget* parent = nullptr);

    /// "saved/total", as the head shows it.
    QString countText() const;
    QSize sizeHint() const override { return QSize(m_fullWidth, QWidget::sizeHint().height()); }
    /// The width the column has when it is all in: 208 at 10 points, more with a bigger font.
    void setFullWidth(int width);
    int fullWidth() const { return m_fullWidth; }
    QListWidget* list() const { return m_list; }

    /// The row's data role that marks a saved item.
    static constexpr int kSavedRole = Qt::UserRole + 1;
    /// The name as row `row` shows it at the list's current width: cut in the middle when too long.
    QString shownName(int row) const;
    /// Whether row `row` shows the saved mark.
    bool showsSavedMark(int row) const;

private:
    void rebuild();
    void syncSelection();

    QPointer<CropModel> m_model;
    QLabel* m_count;
    QListWidget* m_list;
    QToolButton* m_remove;
    bool m_syncing = false;
    /// Thumbnails already drawn, by item and by the version of its source: a queue of hundreds of
    /// 12-megapixel images mustn't scale every one of them again whenever one item changes.
    QHash<QPair<QUuid, qint64>, QIcon> m_thumbnails;
    int m_fullWidth = 208;
};

} // namespace cutlark
