#include "ui/QueueDrawer.h"

#include "ui/Widgets.h"

#include <QApplication>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QStyledItemDelegate>

#include <algorithm>
#include <QPainter>
#include <QPainterPath>
#include <QToolButton>
#include <QVBoxLayout>

namespace cutlark {

namespace {

// The source as loaded, fitted into 34 × 34 on a rounded tile.
QIcon thumbnail(const QImage& image) {
    QPixmap tile(68, 68); // drawn at twice the size for sharp screens
    tile.fill(Qt::transparent);
    QPainter p(&tile);
    p.setRenderHint(QPainter::Antialiasing);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    QPainterPath clip;
    clip.addRoundedRect(QRectF(0, 0, 68, 68), 10, 10);
    p.setClipPath(clip);
    p.fillRect(QRectF(0, 0, 68, 68), QColor(128, 128, 128, 40));
    if (!image.isNull()) {
        // A quick cut to four times the size first; the smooth pass then works on a few thousand pixels.
        const QImage near = image.width() > 272 || image.height() > 272
                                ? image.scaled(272, 272, Qt::KeepAspectRatio, Qt::FastTransformation)
                                : image;
        const QImage small = near.scaled(68, 68, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        p.drawImage(QPointF((68 - small.width()) / 2.0, (68 - small.height()) / 2.0), small);
    }
    p.end();
    return QIcon(tile);
}

// One row of the queue: the thumbnail, the file name cut in the middle (the extension stays
// readable), a spacer, and a green check for a saved item.
class RowDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    static constexpr int kCheckWidth = 22;

    // Where the name goes in a row of `rect`, and the name cut to it.
    static QRect nameRect(const QRect& rect, int iconSide) {
        return QRect(rect.left() + 6 + iconSide + 8, rect.top(),
                     rect.width() - (6 + iconSide + 8) - kCheckWidth - 6, rect.height());
    }
    static QString shown(const QString& name, const QFontMetrics& fm, const QRect& rect, int iconSide) {
        return fm.elidedText(name, Qt::ElideMiddle, nameRect(rect, iconSide).width());
    }

    void paint(QPainter* p, const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        QStyleOptionViewItem opt = option;
        initStyleOption(&opt, index);
        // The background and the selection as the style draws them, then the row's own parts.
        opt.text.clear();
        opt.icon = QIcon();
        const QWidget* view = option.widget;
        QStyle* style = view ? view->style() : QApplication::style();
        style->drawControl(QStyle::CE_ItemViewItem, &opt, p, view);
        const int side = option.decorationSize.height();
        const QRect r = option.rect;
        const QIcon icon = qvariant_cast<QIcon>(index.data(Qt::DecorationRole));
        icon.paint(p, QRect(r.left() + 6, r.top() + (r.height() - side) / 2, side, side));
        const bool selected = option.state & QStyle::State_Selected;
        p->save();
        p->setPen(option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text));
        p->drawText(nameRect(r, side), Qt::AlignVCenter | Qt::AlignLeft | Qt::TextSingleLine,
                    shown(index.data(Qt::DisplayRole).toString(), option.fontMetrics, r, side));
        if (index.data(QueueDrawer::kSavedRole).toBool()) {
            p->setPen(selected ? option.palette.color(QPalette::HighlightedText) : QColor(46, 157, 79));
            QFont bold = option.font;
            bold.setBold(true);
            p->setFont(bold);
            p->drawText(QRect(r.right() - kCheckWidth - 4, r.top(), kCheckWidth, r.height()), Qt::AlignCenter,
                        QStringLiteral("✓"));
        }
        p->restore();
    }

    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        // As wide as the list allows, never wider: the name is cut instead of scrolled.
        const QSize base = QStyledItemDelegate::sizeHint(option, index);
        return QSize(1, std::max(base.height(), option.decorationSize.height() + 8));
    }
};

} // namespace

QString QueueDrawer::shownName(int row) const {
    const QListWidgetItem* item = m_list->item(row);
    if (!item) return QString();
    return RowDelegate::shown(item->text(), m_list->fontMetrics(), m_list->visualItemRect(item),
                              m_list->iconSize().height());
}

void QueueDrawer::setFullWidth(int width) {
    if (width == m_fullWidth) return;
    m_fullWidth = width;
    // The column's width is its size hint (a fixed policy); a motion under way keeps its own limit.
    if (!property("cutlarkTransition").toBool() && maximumWidth() != QWIDGETSIZE_MAX) setMaximumWidth(width);
    updateGeometry();
}

bool QueueDrawer::showsSavedMark(int row) const {
    const QListWidgetItem* item = m_list->item(row);
    return item && item->data(kSavedRole).toBool();
}

QueueDrawer::QueueDrawer(CropModel* model, QWidget* parent)
    : QWidget(parent), m_model(model), m_count(captionLabel(QString())), m_list(new QListWidget(this)),
      m_remove(new QToolButton(this)) {
    setMinimumWidth(0);
    setMaximumWidth(m_fullWidth);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Preferred);
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    auto* head = new QWidget(this);
    head->setFixedHeight(44);
    auto* headRow = new QHBoxLayout(head);
    headRow->setContentsMargins(12, 0, 12, 0);
    auto* title = new QLabel(tr("Queue"), head);
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    headRow->addWidget(title);
    headRow->addStretch();
    headRow->addWidget(m_count);
    column->addWidget(head);
    column->addWidget(divider(Qt::Horizontal, this));

    m_list->setIconSize(QSize(34, 34));
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setTextElideMode(Qt::ElideMiddle);
    m_list->setUniformItemSizes(true);
    m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_list->setResizeMode(QListView::Adjust);
    m_list->setItemDelegate(new RowDelegate(m_list));
    column->addWidget(m_list, 1);
    column->addWidget(divider(Qt::Horizontal, this));

    auto* foot = new QWidget(this);
    auto* footRow = new QHBoxLayout(foot);
    footRow->setContentsMargins(12, 8, 12, 8);
    footRow->setSpacing(8);
    auto* add = new QToolButton(foot);
    add->setText(tr("Add"));
    add->setIcon(symbol(QStringLiteral("plus")));
    add->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    add->setAutoRaise(true);
    connect(add, &QToolButton::clicked, model, &CropModel::openPanel);
    m_remove->setIcon(symbol(QStringLiteral("trash")));
    m_remove->setToolTip(tr("Remove the selected image (Delete)"));
    m_remove->setAutoRaise(true);
    m_remove->setAccessibleName(tr("Remove"));
    connect(m_remove, &QToolButton::clicked, this, [this] {
        if (m_model && m_model->activeID()) m_model->remove(*m_model->activeID());
    });
    footRow->addWidget(add);
    footRow->addStretch();
    footRow->addWidget(m_remove);
    column->addWidget(foot);

    // Selecting a row selects the item; a selection of nothing is ignored.
    connect(m_list, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* current) {
        if (m_syncing || !current || !m_model) return;
        m_model->select(QUuid::fromString(current->data(Qt::UserRole).toString()));
    });
    connect(model, &CropModel::changed, this, [this](CropModel::Field f) {
        if (f == CropModel::Field::items)
            rebuild();
        else if (f == CropModel::Field::activeID)
            syncSelection();
    });
    rebuild();
}

QString QueueDrawer::countText() const {
    if (!m_model) return QString();
    qint64 saved = 0;
    for (const auto& item : m_model->items())
        saved += item.saved;
    return QStringLiteral("%1/%2").arg(saved).arg(qint64(m_model->items().size()));
}

void QueueDrawer::rebuild() {
    if (!m_model) return;
    m_syncing = true;
    m_list->clear();
    QHash<QPair<QUuid, qint64>, QIcon> kept;
    for (const auto& item : m_model->items()) {
        // The item's own thumbnail: its pixels may have been let go of.
        const QImage source = item.thumbnail.isNull() ? item.buffer.image() : item.thumbnail;
        const QPair<QUuid, qint64> key(item.id, source.cacheKey());
        const auto cached = m_thumbnails.constFind(key);
        const QIcon icon = cached != m_thumbnails.constEnd() ? *cached : thumbnail(source);
        kept.insert(key, icon);
        auto* row = new QListWidgetItem(icon, QFileInfo(item.path).fileName(), m_list);
        row->setData(Qt::UserRole, item.id.toString());
        row->setData(kSavedRole, item.saved);
        row->setToolTip(item.path);
    }
    m_thumbnails = std::move(kept); // removed items and replaced sources drop out
    m_count->setText(countText());
    m_syncing = false;
    syncSelection();
}

void QueueDrawer::syncSelection() {
    if (!m_model) return;
    m_syncing = true;
    m_remove->setEnabled(m_model->activeID().has_value());
    for (int i = 0; i < m_list->count(); ++i) {
        QListWidgetItem* row = m_list->item(i);
        if (m_model->activeID() && row->data(Qt::UserRole).toString() == m_model->activeID()->toString()) {
            m_list->setCurrentItem(row);
            m_list->scrollToItem(row, QAbstractItemView::EnsureVisible); // a visible row doesn't move
        }
    }
    m_syncing = false;
}

} // namespace cutlark
