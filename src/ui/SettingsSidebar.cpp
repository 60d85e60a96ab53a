#include "ui/SettingsSidebar.h"

#include "ui/sidebar/Sections.h"
#include "ui/sidebar/SidebarControls.h"
#include "ui/Widgets.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

namespace cutlark {

SettingsSidebar::SettingsSidebar(CropModel* model, QWidget* parent)
    : QWidget(parent), m_model(model), m_controls(new SidebarControls(model, this)) {
    setFixedWidth(252);
    build();
    // Each control moves only when a field it shows changes; the title row and the foot follow
    // the few fields they show.
    connect(model, &CropModel::changed, this, [this](CropModel::Field f) {
        m_controls->refresh(f);
        switch (f) {
        case CropModel::Field::items:
        case CropModel::Field::activeID:
        case CropModel::Field::syncSettingsAcrossQueue:
        case CropModel::Field::errorMessage:
        case CropModel::Field::saveConfirmation:
        case CropModel::Field::noticeMessage:
        case CropModel::Field::saving:
        case CropModel::Field::vectorizeEnabled:
        case CropModel::Field::vectorFullColor:
        case CropModel::Field::vectorTrace:
        case CropModel::Field::vectorColorTrace:
            refresh();
            break;
        default:
            break;
        }
    });
    m_controls->refreshAll();
    refresh();
}

QString SettingsSidebar::statusText(const CropModel& m, bool* warning) {
    if (warning) *warning = false;
    if (m.errorMessage()) {
        if (warning) *warning = true;
        return *m.errorMessage();
    }
    if (m.savingMessage()) return *m.savingMessage();
    if (m.allSaved()) return tr("All %1 images saved.").arg(qint64(m.items().size()));
    if (m.saveConfirmation() && m.items().size() > 1)
        return tr("Saved %1 — next image ready.").arg(*m.saveConfirmation());
    if (m.saveConfirmation()) return tr("Saved %1").arg(*m.saveConfirmation());
    if (m.noticeMessage()) return *m.noticeMessage();
    return QString();
}

QPushButton* SettingsSidebar::primaryButton() const {
    return m_model && m_model->vectorizeEnabled() ? m_export : m_save;
}
QPushButton* SettingsSidebar::secondaryButton() const {
    return m_model && m_model->vectorizeEnabled() ? m_copy : m_saveAs;
}

void SettingsSidebar::triggerPrimary() {
    QPushButton* b = primaryButton();
    if (b && b->isEnabled()) b->click();
}

void SettingsSidebar::build() {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    // Title row.
    auto* title = new QWidget(this);
    title->setFixedHeight(44);
    auto* titleRow = new QHBoxLayout(title);
    titleRow->setContentsMargins(14, 0, 14, 0);
    auto* heading = new QLabel(tr("Settings"), title);
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);
    titleRow->addWidget(heading);
    titleRow->addStretch();
    m_sync = new ElidedCheckBox(tr("Sync all"), title);
    m_sync->setToolTip(
        tr("Apply every setting change to all images in the queue, not just this one. Off by default — "
           "each image keeps its own settings."));
    connect(m_sync, &QCheckBox::toggled, this, [this](bool on) {
        if (!m_refreshing) m_model->setSyncSettingsAcrossQueue(on);
    });
    titleRow->addWidget(m_sync);
    column->addWidget(title);
    column->addWidget(divider(Qt::Horizontal, this));

    // The list: the sections in their order, a divider after each but the last.
    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    auto* content = new QWidget(scroll);
    auto* list = new QVBoxLayout(content);
    list->setContentsMargins(14, 14, 14, 14);
    list->setSpacing(14);
    m_empty = secondaryLabel(tr("Drop an image to get started."), content);
    list->addWidget(m_empty);
    m_settings = new QWidget(content);
    auto* rows = new QVBoxLayout(m_settings);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(14);
    list->addWidget(m_settings);
    list->addStretch();
    scroll->setWidget(content);
    column->addWidget(scroll, 1);

    SidebarControls& c = *m_controls;
    const auto add = [&](QWidget* section, bool last = false) {
        rows->addWidget(section);
        if (!last) rows->addWidget(divider(Qt::Horizontal, m_settings));
    };
    add(SidebarSections::orientation(c, m_settings));
    SidebarSections::collageCallout(c, m_settings, rows);
    add(SidebarSections::crop(c, m_settings, [this] { emit editCropRequested(); }));
    add(SidebarSections::trim(c, m_settings));
    add(SidebarSections::backgroundRemoval(c, m_settings, [this] { emit refineRequested(); }));
    add(SidebarSections::sticker(c, m_settings));
    add(SidebarSections::padding(c, m_settings));
    add(SidebarSections::background(c, m_settings));
    add(SidebarSections::resize(c, m_settings));
    add(SidebarSections::vectorize(c, m_settings), true);

    // Foot: the status row and the action buttons.
    column->addWidget(divider(Qt::Horizontal, this));
    auto* foot = new QWidget(this);
    auto* footColumn = new QVBoxLayout(foot);
    footColumn->setContentsMargins(14, 14, 14, 14);
    footColumn->setSpacing(10);
    // While a save waits or writes, a small indeterminate bar beside its text says it is alive.
    auto* statusRow = new QHBoxLayout;
    statusRow->setSpacing(6);
    m_busy = new QProgressBar(foot);
    m_busy->setRange(0, 0);
    m_busy->setTextVisible(false);
    m_busy->setFixedSize(28, 8);
    m_busy->setAccessibleName(tr("Saving"));
    m_status = new QLabel(foot);
    m_status->setWordWrap(true);
    statusRow->addWidget(m_busy);
    statusRow->addWidget(m_status, 1);
    footColumn->addLayout(statusRow);
    auto button = [&](const QString& text, bool prominent, void (CropModel::*action)()) {
        auto* b = new QPushButton(text, foot);
        b->setMinimumHeight(30);
        if (prominent) b->setDefault(true);
        connect(b, &QPushButton::clicked, this, [this, action] { emit actionRequested(action); });
        footColumn->addWidget(b);
        return b;
    };
    m_save = button(tr("Save Over Original"), true, &CropModel::saveOverOriginal);
    m_saveAs = button(tr("Save as New…"), false, &CropModel::saveAsNewFile);
    m_export = button(tr("Export SVG"), true, &CropModel::exportSVG);
    m_copy = button(tr("Copy SVG"), false, &CropModel::copySVG);
    m_copy->setIcon(symbol(QStringLiteral("doc.on.clipboard")));
    m_save->setToolTip(tr("Ctrl+S"));
    m_export->setToolTip(tr("Ctrl+S"));
    column->addWidget(foot);
}

void SettingsSidebar::refresh() {
    if (!m_model || m_refreshing) return;
    m_refreshing = true;
    const CropModel& m = *m_model;
    const bool hasItem = m.active() != nullptr;
    m_sync->setVisible(m.items().size() >= 2);
    m_sync->setChecked(m.syncSettingsAcrossQueue());
    m_empty->setVisible(!hasItem);
    m_settings->setVisible(hasItem);

    bool warning = false;
    const QString text = statusText(m, &warning);
    const bool busy = !warning && m.savingMessage().has_value();
    m_busy->setVisible(busy);
    m_status->setVisible(!text.isEmpty());
    if (busy) {
        m_status->setText(text.toHtmlEscaped());
    } else {
        const QString colour = warning ? QStringLiteral("#d9730d") : QStringLiteral("#2e9d4f");
        m_status->setText(
            QStringLiteral("<span style='color:%1'>%2 %3</span>")
                .arg(colour, warning ? QStringLiteral("⚠") : QStringLiteral("✔"), text.toHtmlEscaped()));
    }

    const bool vector = m.vectorizeEnabled();
    m_save->setVisible(!vector);
    m_saveAs->setVisible(!vector);
    m_export->setVisible(vector);
    m_copy->setVisible(vector);
    m_save->setEnabled(hasItem);
    m_saveAs->setEnabled(hasItem);
    m_export->setEnabled(m.hasVectorOutput());
    m_copy->setEnabled(m.hasVectorOutput());
    m_refreshing = false;
}

} // namespace cutlark
