#include "ui/ContentView.h"

#include "ui/CropEditorSheet.h"
#include "ui/FileOpenInbox.h"
#include "ui/ImagePreview.h"
#include "ui/QueueDrawer.h"
#include "ui/RefineSheet.h"
#include "ui/SettingsSidebar.h"
#include "ui/Transition.h"
#include "ui/Widgets.h"

#include "io/ImageFile.h"
#include "support/PrivateDir.h"

#include <QApplication>
#include <QBoxLayout>
#include <QDir>
#include <QDragEnterEvent>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPaintEvent>
#include <QPixmap>
#include <QPushButton>
#include <QShortcut>
#include <QStackedWidget>
#include <QTimer>
#include <QUuid>
#include <QVBoxLayout>

namespace cutlark {

namespace {

// The empty window's invitation: a dashed, rounded field that opens the panel wherever it's clicked.
class DropZone : public QWidget {
public:
    DropZone(CropModel* model, ContentView* view) : QWidget(view), m_view(view), m_model(model) {
        auto* column = new QVBoxLayout(this);
        column->setContentsMargins(28 + 44, 28, 28 + 44, 28);
        column->setSpacing(14);
        column->addStretch();
        auto* icon = new QLabel(this);
        icon->setPixmap(symbol(QStringLiteral("photo.on.rectangle.angled")).pixmap(52, 52));
        icon->setAlignment(Qt::AlignCenter);
        column->addWidget(icon);
        auto* title = new QLabel(tr("Drop images here"), this);
        QFont f = title->font();
        f.setPointSizeF(f.pointSizeF() * 1.35);
        f.setBold(true);
        title->setFont(f);
        title->setAlignment(Qt::AlignCenter);
        column->addWidget(title);
        auto* text = secondaryLabel(
            tr("Trim to the artwork, key out white backgrounds, and add a sticker outline. Drop "
               "several images — or a folder — to queue them up."),
            this);
        text->setAlignment(Qt::AlignCenter);
        text->setMaximumWidth(380);
        auto* textRow = new QHBoxLayout;
        textRow->addStretch();
        textRow->addWidget(text, 100);
        textRow->addStretch();
        column->addLayout(textRow);
        column->addSpacing(6);
        auto* choose = new QPushButton(tr("Choose Images…"), this);
        choose->setMinimumHeight(32);
        connect(choose, &QPushButton::clicked, model, &CropModel::openPanel);
        column->addWidget(choose, 0, Qt::AlignHCenter);
        column->addStretch();
        setCursor(Qt::PointingHandCursor);
    }

protected:
    void mousePressEvent(QMouseEvent* e) override {
        if (e->button() == Qt::LeftButton) m_model->openPanel();
    }
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        const bool targeted = m_view->isTargeted();
        QRectF r = QRectF(rect()).adjusted(28, 28, -28, -28);
        if (targeted) {
            const QPointF c = r.center();
            r = QRectF(c.x() - r.width() * 0.505, c.y() - r.height() * 0.505, r.width() * 1.01,
                       r.height() * 1.01);
        }
        QColor accent = palette().color(QPalette::Highlight);
        if (targeted) {
            QColor tint = accent;
            tint.setAlphaF(0.06f);
            p.setBrush(tint);
        }
        QColor line = targeted ? accent : palette().color(QPalette::PlaceholderText);
        if (!targeted) line.setAlphaF(0.35f);
        QPen pen(line, 2);
        pen.setDashPattern({9.0 / 2, 7.0 / 2});
        p.setPen(pen);
        p.drawRoundedRect(r.adjusted(1, 1, -1, -1), 16, 16);
    }

private:
    ContentView* m_view;
    CropModel* m_model;
};

// The backdrop behind the picture: the window colour with faint diagonal stripes.
class StripedRegion : public QWidget {
public:
    StripedRegion(const ContentView* view, QWidget* parent) : QWidget(parent), m_view(view) {}

protected:
    void paintEvent(QPaintEvent* event) override {
        // One fill with a 10-pixel tile of the stripe: the picture in front is drawn over this at
        // every step of a drag, and a line at a time cost tens of milliseconds a frame.
        const QColor window = palette().color(QPalette::Window);
        if (m_tile.isNull() || m_tileWindow != window) {
            m_tileWindow = window;
            m_tile = QPixmap(10, 10);
            m_tile.fill(window);
            QPainter tp(&m_tile);
            tp.setRenderHint(QPainter::Antialiasing);
            tp.setPen(QPen(QColor(128, 128, 128, int(0.05 * 255 * 2)), 1.5));
            for (int x = -10; x <= 10; x += 10) // the neighbours' stripes, where they cross the tile
                tp.drawLine(QPointF(x, 0), QPointF(x + 10, 10));
        }
        QPainter p(this);
        p.fillRect(event->rect(), QBrush(m_tile));
        p.setRenderHint(QPainter::Antialiasing);
        if (m_view->isTargeted()) {
            // The drop ring, inside the region's edges.
            p.setPen(QPen(palette().color(QPalette::Highlight), 3));
            p.setBrush(Qt::NoBrush);
            p.drawRoundedRect(QRectF(rect()).adjusted(7.5, 7.5, -7.5, -7.5), 10, 10);
        }
    }

private:
    const ContentView* m_view;
    QPixmap m_tile;
    QColor m_tileWindow;
};

} // namespace

ContentView::ContentView(QWidget* parent)
    : QWidget(parent), m_panels(this), m_queue(new QueueDrawer(&m_model, this)),
      m_queueDivider(divider(Qt::Vertical, this)), m_header(new QWidget(this)),
      m_name(new ElidedLabel(QString(), Qt::ElideMiddle, m_header)),
      m_badge(captionLabel(QString(), m_header)), m_dims(new QLabel(m_header)),
      m_region(new QStackedWidget(this)), m_dropZone(new DropZone(&m_model, this)),
      m_preview(new ImagePreview(&m_model)), m_sidebar(new SettingsSidebar(&m_model, this)) {
    m_model.setPanels(&m_panels);
    setAcceptDrops(true);
    setMinimumSize(660, 380);

    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(0);
    row->addWidget(m_queue);
    row->addWidget(m_queueDivider);

    auto* centre = new QWidget(this);
    auto* column = new QVBoxLayout(centre);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    m_header->setMinimumHeight(44);
    m_header->installEventFilter(this); // its arrangement follows its own width
    // One row when it fits, else the name over the sizes: the layout turns with the width.
    m_headerLayout = new QBoxLayout(QBoxLayout::LeftToRight, m_header);
    m_headerLayout->setContentsMargins(16, 0, 16, 0);
    m_headerLayout->setSpacing(8);
    auto* nameRow = new QHBoxLayout;
    nameRow->setSpacing(8);
    auto* headerRow = nameRow;
    m_name->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred); // cut in the middle, never the sizes
    QFont nameFont = m_name->font();
    nameFont.setWeight(QFont::Medium);
    m_name->setFont(nameFont);
    headerRow->addWidget(m_name, 1);
    m_badge->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Preferred);
    headerRow->addWidget(m_badge);
    m_headerLayout->addLayout(nameRow, 1);
    m_dims->setTextFormat(Qt::RichText);
    m_dims->setSizePolicy(QSizePolicy::Minimum, QSizePolicy::Preferred); // never squeezed
    m_headerLayout->addWidget(m_dims);
    column->addWidget(m_header);
    column->addWidget(divider(Qt::Horizontal, centre));

    auto* striped = new StripedRegion(this, m_region);
    auto* inset = new QVBoxLayout(striped);
    inset->setContentsMargins(0, 0, 0, 0); // the preview keeps its own margin, for the badge
    m_preview->setParent(striped);
    inset->addWidget(m_preview);
    // Neither page may hold the column wider than it must be: the sidebar has to fit beside it.
    m_dropZone->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Ignored);
    striped->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Ignored);
    m_region->addWidget(m_dropZone);
    m_region->addWidget(striped);
    column->addWidget(m_region, 1);
    row->addWidget(centre, 1);
    row->addWidget(divider(Qt::Vertical, this));
    row->addWidget(m_sidebar);

    // Saving, exporting and removing have their keys in the window's menus; Backspace removes too.
    auto* backspace = new QShortcut(QKeySequence(Qt::Key_Backspace), this);
    connect(backspace, &QShortcut::activated, this, [this] {
        if (m_model.activeID()) m_model.remove(*m_model.activeID());
    });
    // The sidebar's buttons go through the same commit as the menus.
    connect(m_sidebar, &SettingsSidebar::actionRequested, this, &ContentView::perform);

    connect(&m_model, &CropModel::changed, this, [this](CropModel::Field field) {
        // The sheet opens when the crop is turned on, whoever turned it on.
        if (field == CropModel::Field::manualCropEnabled) {
            const bool on = m_model.manualCropEnabled();
            if (on && !m_cropWasEnabled) openCropEditor();
            m_cropWasEnabled = on;
        }
        refresh();
    });
    connect(m_sidebar, &SettingsSidebar::editCropRequested, this, &ContentView::openCropEditor);
    connect(m_sidebar, &SettingsSidebar::refineRequested, this, &ContentView::openRefineSheet);
    connect(&FileOpenInbox::instance(), &FileOpenInbox::didReceive, this, [this] {
        if (isVisible()) drainInbox();
    });
    refresh();
}

CropEditorSheet* ContentView::cropEditor() const {
    return m_cropEditor.data();
}

void ContentView::openCropEditor() {
    const QImage source = m_model.cropSourceImage();
    if (source.isNull() || m_cropEditor) return;
    m_cropEditor = new CropEditorSheet(source, m_model.manualCropRect(), this);
    m_cropEditor->setAttribute(Qt::WA_DeleteOnClose);
    // Cancel keeps nothing of the editing; a crop just turned on stays on with the rectangle it had.
    CropEditorSheet* sheet = m_cropEditor;
    // The crop drawn belongs to the picture it was drawn on, never to one that became active since.
    const std::optional<QUuid> drawnOn = m_model.activeID();
    connect(sheet, &QDialog::accepted, this, [this, sheet, drawnOn] {
        if (m_model.activeID() == drawnOn) m_model.setManualCrop(sheet->crop());
    });
    // Files handed over while the sheet was open wait for it, then open.
    connect(sheet, &QDialog::finished, this,
            [this] { QTimer::singleShot(0, this, &ContentView::drainInbox); });
    m_cropEditor->resize(760, 600);
    m_cropEditor->open();
}

RefineSheet* ContentView::refineSheet() const {
    return m_refineSheet.data();
}

void ContentView::openRefineSheet() {
    const CropModel::Item* item = m_model.active();
    const QImage cutout = m_model.activeCutout();
    if (!item || cutout.isNull() || m_refineSheet || m_cropEditor) return;
    m_refineSheet = new RefineSheet(item->buffer.image(), cutout, m_model.maskEdits(),
                                    int(m_model.quarterTurns()), m_model.mirrored(), this);
    m_refineSheet->setAttribute(Qt::WA_DeleteOnClose);
    RefineSheet* sheet = m_refineSheet;
    // The touch-ups belong to the picture they were drawn on, never to one that became active since.
    const std::optional<QUuid> drawnOn = m_model.activeID();
    connect(sheet, &QDialog::accepted, this, [this, sheet, drawnOn] {
        if (m_model.activeID() == drawnOn && sheet->edits() != m_model.maskEdits())
            m_model.setMaskEdits(sheet->edits());
    });
    connect(sheet, &QDialog::finished, this,
            [this] { QTimer::singleShot(0, this, &ContentView::drainInbox); });
    m_refineSheet->resize(std::max(760, width() * 9 / 10), std::max(600, height() * 9 / 10));
    m_refineSheet->open();
}

void ContentView::commitEditing() {
    // Leaving the field finishes its edit, which writes the model; the field then shows its value.
    if (auto* edit = qobject_cast<QLineEdit*>(QApplication::focusWidget()); edit && isAncestorOf(edit))
        edit->clearFocus();
}

void ContentView::perform(void (CropModel::*action)()) {
    commitEditing();
    (m_model.*action)();
}

void ContentView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    // Files delivered before the window existed wait in the inbox; they open on the next turn of
    // the event loop, so the window is up before anything decodes.
    QTimer::singleShot(0, this, &ContentView::drainInbox);
}

void ContentView::drainInbox() {
    // Not behind a sheet: the picture being cropped or refined stays the active one until it closes.
    if (m_cropEditor || m_refineSheet) return;
    const QStringList files = FileOpenInbox::instance().take();
    if (!files.isEmpty()) m_model.open(files);
}

QString ContentView::nameText() const {
    const auto* item = const_cast<CropModel&>(m_model).active();
    return item ? QFileInfo(item->path).fileName() : QString();
}

QString ContentView::dimsText() const {
    const auto* item = const_cast<CropModel&>(m_model).active();
    if (!item || m_model.processedImage().isNull()) return QString();
    const QSize out = m_model.resultSize();
    return QStringLiteral("%1×%2 → %3×%4")
        .arg(item->buffer.width())
        .arg(item->buffer.height())
        .arg(out.width())
        .arg(out.height());
}

void ContentView::refresh() {
    const bool several = m_model.items().size() >= 2;
    setShown(m_queue, several, 180, Qt::Horizontal);
    m_queueDivider->setVisible(several);
    const auto* item = m_model.active();
    setShown(m_header, item != nullptr, 180, Qt::Vertical);
    m_region->setCurrentIndex(item ? 1 : 0);
    if (item) {
        m_name->setText(nameText());
        m_name->setToolTip(item->path);
        const auto position = m_model.activePosition();
        m_badge->setVisible(several && position.has_value());
        if (position) m_badge->setText(tr("%1 of %2").arg(*position).arg(qint64(m_model.items().size())));
        const QImage& image = m_model.processedImage();
        const QSize out = m_model.resultSize(); // a draft's too, during a drag
        m_dims->setVisible(!image.isNull());
        if (!image.isNull()) {
            const QString accent = m_model.willTrim() ? readableAccent(palette()).name()
                                                      : palette().color(QPalette::PlaceholderText).name();
            // Where the whole line doesn't fit under the name, the result's size alone (the source's
            // is in the tooltip), so the header never takes a third line.
            m_dimsFull =
                QStringLiteral("<span style='color:%1'>%2×%3</span>&nbsp;→ <b style='color:%4'>%5×%6</b>")
                    .arg(palette().color(QPalette::PlaceholderText).name())
                    .arg(item->buffer.width())
                    .arg(item->buffer.height())
                    .arg(accent)
                    .arg(out.width())
                    .arg(out.height());
            m_dimsCompact = QStringLiteral("→ <b style='color:%1'>%2×%3</b>")
                                .arg(accent)
                                .arg(out.width())
                                .arg(out.height());
            m_dims->setText(m_dimsFull);
            m_dims->setToolTip(dimsText());
        }
        arrangeHeader();
    }
}

void ContentView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    sizeColumns();
    arrangeHeader();
}

void ContentView::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::FontChange) sizeColumns();
}

void ContentView::sizeColumns() {
    // The sidebar grows with the font, whatever the window: its controls are cut otherwise. The queue
    // grows too as far as the picture keeps 320 pixels; in a narrow window it gives back what the
    // sidebar took, down to 150, so that the picture keeps the width it has at 10 points.
    constexpr int sidebarBase = 252, queueBase = 208, queueLeast = 150, pictureAtLeast = 320;
    const double scale = fontScale(font());
    const int sidebar = int(sidebarBase * scale);
    const int floor = std::max(queueLeast, queueBase - (sidebar - sidebarBase));
    const int queue = std::max(floor, std::min(int(queueBase * scale), width() - sidebar - pictureAtLeast));
    if (m_sidebar->width() != sidebar) m_sidebar->setFixedWidth(sidebar);
    m_queue->setFullWidth(queue);
}

void ContentView::arrangeHeader() {
    // One row while the name (at least 110 wide), the badge, a gap of 12 and the whole sizes fit;
    // otherwise the name over the sizes, the header as tall as the two lines need.
    m_dims->setWordWrap(false);
    if (!m_dimsFull.isEmpty()) m_dims->setText(m_dimsFull); // measured whole, whatever was shown last
    const int needed = 16 + 110 + 8 + (m_badge->isVisible() ? m_badge->sizeHint().width() + 8 : 0) + 12 +
                       m_dims->sizeHint().width() + 16;
    const bool oneRow = m_header->width() >= needed;
    if (!m_dimsFull.isEmpty()) {
        // The sizes' width as drawn, the result's part in bold.
        QFont bold = m_dims->font();
        bold.setBold(true);
        const QString source = dimsText().section(QStringLiteral(" → "), 0, 0);
        const QString result = dimsText().section(QStringLiteral(" → "), 1);
        const int whole = m_dims->fontMetrics().horizontalAdvance(source + QStringLiteral(" → ")) +
                          QFontMetrics(bold).horizontalAdvance(result);
        m_dims->setText(oneRow || whole <= m_header->width() - 32 ? m_dimsFull : m_dimsCompact);
    }
    m_dims->setWordWrap(!oneRow);
    m_dims->setMinimumWidth(oneRow ? m_dims->sizeHint().width() : 0);
    m_headerLayout->setDirection(oneRow ? QBoxLayout::LeftToRight : QBoxLayout::TopToBottom);
    m_headerLayout->setSpacing(oneRow ? 8 : 3);
    m_headerLayout->setContentsMargins(16, oneRow ? 0 : 4, 16, oneRow ? 0 : 4);
    m_header->setMaximumHeight(oneRow ? 44 : QWIDGETSIZE_MAX);
}

bool ContentView::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_header && event->type() == QEvent::Resize) {
        const auto* resize = static_cast<QResizeEvent*>(event);
        if (resize->oldSize().width() != resize->size().width()) arrangeHeader();
    }
    return QWidget::eventFilter(watched, event);
}

bool ContentView::headerIsOneRow() const {
    return m_headerLayout->direction() == QBoxLayout::LeftToRight;
}

void ContentView::setTargeted(bool on) {
    m_targeted = on;
    m_dropZone->update();
    m_region->currentWidget()->update();
}

void ContentView::dragEnterEvent(QDragEnterEvent* event) {
    event->acceptProposedAction(); // every drag is welcome until it is dropped
    setTargeted(true);
}

void ContentView::dragLeaveEvent(QDragLeaveEvent*) {
    setTargeted(false);
}

void ContentView::dropEvent(QDropEvent* event) {
    setTargeted(false);
    const QMimeData* mime = event->mimeData();
    QStringList paths;
    for (const QUrl& url : mime->urls())
        if (url.isLocalFile()) paths << url.toLocalFile();
    if (paths.isEmpty() && mime->hasImage()) {
        // Image data with no file behind it lands in a folder of its own, private to the user (no
        // one else can read it, swap the folder or plant a link in it), then opens like a file.
        // The folder goes when the window does.
        const QImage image = qvariant_cast<QImage>(mime->imageData());
        const QByteArray png =
            image.isNull() ? QByteArray() : ImageFile::encode(image, QStringLiteral("image/png"));
        const QString folder = png.isEmpty() ? QString() : PrivateDir::create(QStringLiteral("CutlarkDrops"));
        if (!folder.isEmpty()) {
            m_dropFolders << folder;
            const QString name = QStringLiteral("Dropped Image.png");
            if (PrivateDir::writeNew(folder, name, png)) paths << QDir(folder).filePath(name);
        }
    }
    if (paths.isEmpty()) {
        event->ignore();
        return;
    }
    event->acceptProposedAction();
    m_model.open(paths);
}

void ContentView::paintEvent(QPaintEvent* event) {
    QWidget::paintEvent(event);
}

ContentView::~ContentView() {
    for (const QString& folder : std::as_const(m_dropFolders))
        PrivateDir::remove(folder);
}

} // namespace cutlark
