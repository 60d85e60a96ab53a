#include "ui/SettingsSidebar.h"

#include "ui/ColorPickerPopover.h"
#include "ui/Transition.h"
#include "ui/Widgets.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>

namespace cutlark {

namespace {

constexpr int kSliderSteps = 10000; // fine enough to pass every intermediate value along

QString rounded(double v) { return QString::number(roundHalfAwayToInt(v)); }

// A status line of the sidebar: a small indeterminate progress indicator or a warning symbol, then
// the text.
struct StatusLine {
    QWidget* row;
    QWidget* spinner;
    QWidget* warning;
    QLabel* text;
};

QLabel* tertiarySymbol(const QString& name, QWidget* parent) {
    auto* l = new QLabel(parent);
    l->setPixmap(symbol(name).pixmap(14, 14));
    l->setEnabled(false);
    return l;
}

StatusLine statusLine(QWidget* parent) {
    auto* row = new QWidget(parent);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    auto* bar = new QProgressBar(row);
    bar->setRange(0, 0);
    bar->setTextVisible(false);
    bar->setFixedSize(28, 8);
    auto* warning = tertiarySymbol(QStringLiteral("exclamationmark.triangle"), row);
    auto* text = captionLabel(QString(), row);
    text->setWordWrap(true);
    layout->addWidget(bar);
    layout->addWidget(warning);
    layout->addWidget(text, 1);
    return {row, bar, warning, text};
}

} // namespace

SettingsSidebar::SettingsSidebar(CropModel* model, QWidget* parent) : QWidget(parent), m_model(model) {
    setFixedWidth(252);
    build();
    connect(model, &CropModel::changed, this, [this](CropModel::Field f) {
        if (f == CropModel::Field::processedImage && !m_refreshing) {
            // The image alone moves no control, but the status and the buttons may follow.
        }
        refresh();
    });
    refresh();
}

QString SettingsSidebar::statusText(const CropModel& m, bool* warning) {
    if (warning) *warning = false;
    if (m.errorMessage()) {
        if (warning) *warning = true;
        return *m.errorMessage();
    }
    if (m.allSaved()) return tr("All %1 images saved.").arg(qint64(m.items().size()));
    if (m.saveConfirmation() && m.items().size() > 1) return tr("Saved %1 — next image ready.").arg(*m.saveConfirmation());
    if (m.saveConfirmation()) return tr("Saved %1").arg(*m.saveConfirmation());
    if (m.noticeMessage()) return *m.noticeMessage();
    return QString();
}

QPushButton* SettingsSidebar::primaryButton() const { return m_model && m_model->vectorizeEnabled() ? m_export : m_save; }
QPushButton* SettingsSidebar::secondaryButton() const { return m_model && m_model->vectorizeEnabled() ? m_copy : m_saveAs; }

void SettingsSidebar::triggerPrimary() {
    QPushButton* b = primaryButton();
    if (b && b->isEnabled()) b->click();
}

QWidget* SettingsSidebar::section(const QString& title, const QString& icon, const bool& (CropModel::*get)() const,
                                  void (CropModel::*set)(const bool&), QWidget* body, int transitionMs) {
    auto* box = new QWidget(m_settings);
    auto* column = new QVBoxLayout(box);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(8);
    auto* head = new QWidget(box);
    auto* row = new QHBoxLayout(head);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(8);
    row->addWidget(symbolLabel(icon, title, head), 1);
    auto* toggle = new ToggleSwitch(head);
    toggle->setAccessibleName(title);
    toggle->setToolTip(title);
    row->addWidget(toggle);
    column->addWidget(head);
    column->addWidget(body);
    connect(toggle, &ToggleSwitch::toggled, this, [this, set](bool on) {
        if (!m_refreshing && m_model) (m_model.data()->*set)(on);
    });
    m_refreshers.push_back([this, toggle, body, get, transitionMs] {
        const bool on = (m_model.data()->*get)();
        toggle->setChecked(on);
        setShown(body, on, transitionMs, Qt::Vertical); // the controls go with the switch; the values stay
    });
    return box;
}

void SettingsSidebar::build() {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    CropModel* model = m_model;

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
    m_sync = new QCheckBox(tr("Sync all"), title);
    m_sync->setToolTip(tr("Apply every setting change to all images in the queue, not just this one. Off by default — "
                          "each image keeps its own settings."));
    connect(m_sync, &QCheckBox::toggled, this, [this](bool on) {
        if (!m_refreshing) m_model->setSyncSettingsAcrossQueue(on);
    });
    titleRow->addWidget(m_sync);
    column->addWidget(title);
    column->addWidget(divider(Qt::Horizontal, this));

    // The list.
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

    // Helpers that build a control and register how it follows its field.
    auto slider = [this](QWidget* parent, double lo, double hi, const double& (CropModel::*get)() const,
                         void (CropModel::*set)(const double&)) {
        auto* s = new QSlider(Qt::Horizontal, parent);
        s->setRange(0, kSliderSteps);
        connect(s, &QSlider::valueChanged, this, [this, s, lo, hi, set](int v) {
            if (!m_refreshing) (m_model.data()->*set)(lo + (hi - lo) * v / double(s->maximum()));
        });
        m_refreshers.push_back([this, s, lo, hi, get] {
            const double v = (m_model.data()->*get)();
            s->setValue(int(std::round(std::clamp((v - lo) / (hi - lo), 0.0, 1.0) * s->maximum())));
        });
        return s;
    };
    auto sliderRow = [&](QWidget* parent, const QString& left, const QString& right, double lo, double hi,
                         const double& (CropModel::*get)() const, void (CropModel::*set)(const double&)) {
        auto* w = new QWidget(parent);
        auto* row = new QHBoxLayout(w);
        row->setContentsMargins(0, 0, 0, 0);
        row->setSpacing(8);
        row->addWidget(tertiarySymbol(left, w));
        row->addWidget(slider(w, lo, hi, get, set), 1);
        row->addWidget(tertiarySymbol(right, w));
        return w;
    };
    auto checkbox = [this](QWidget* parent, const QString& text, const QString& tip, const bool& (CropModel::*get)() const,
                           void (CropModel::*set)(const bool&)) {
        auto* c = new QCheckBox(text, parent);
        c->setToolTip(tip);
        connect(c, &QCheckBox::toggled, this, [this, set](bool on) {
            if (!m_refreshing) (m_model.data()->*set)(on);
        });
        m_refreshers.push_back([this, c, get] { c->setChecked((m_model.data()->*get)()); });
        return c;
    };
    auto readout = [this](QWidget* parent, int width, std::function<QString()> text) {
        auto* l = captionLabel(QString(), parent);
        l->setFixedWidth(width);
        l->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        m_refreshers.push_back([l, text] { l->setText(text()); });
        return l;
    };
    auto segmented = [this](QWidget* parent, const QStringList& labels, std::function<int()> get,
                            std::function<void(int)> set) {
        auto* w = new QWidget(parent);
        auto* row = new QHBoxLayout(w);
        row->setContentsMargins(0, 0, 0, 0);
        row->setSpacing(0);
        auto* group = new QButtonGroup(w);
        for (int i = 0; i < labels.size(); ++i) {
            auto* b = new QToolButton(w);
            b->setText(labels[i]);
            b->setCheckable(true);
            b->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
            group->addButton(b, i);
            row->addWidget(b);
        }
        connect(group, &QButtonGroup::idClicked, this, [this, set](int id) {
            if (!m_refreshing) set(id);
        });
        m_refreshers.push_back([group, get] {
            if (auto* b = group->button(get())) b->setChecked(true);
        });
        return w;
    };
    auto vbox = [](QWidget* parent, int spacing = 8) {
        auto* w = new QWidget(parent);
        auto* l = new QVBoxLayout(w);
        l->setContentsMargins(0, 0, 0, 0);
        l->setSpacing(spacing);
        return std::make_pair(w, l);
    };
    auto showWhile = [this](QWidget* w, std::function<bool()> condition) {
        m_refreshers.push_back([w, condition] { w->setVisible(condition()); });
    };

    // 1. Rotate & flip.
    {
        auto [w, l] = vbox(m_settings);
        auto* head = new QWidget(w);
        auto* headRow = new QHBoxLayout(head);
        headRow->setContentsMargins(0, 0, 0, 0);
        headRow->addWidget(symbolLabel(QStringLiteral("rotate.right"), tr("Rotate & flip"), head), 1);
        auto* reset = new QToolButton(head);
        reset->setText(tr("Reset"));
        reset->setAutoRaise(true);
        connect(reset, &QToolButton::clicked, this, [model] {
            model->setQuarterTurns(0);
            model->setMirrored(false);
        });
        showWhile(reset, [model] { return model->quarterTurns() != 0 || model->mirrored(); });
        headRow->addWidget(reset);
        l->addWidget(head);
        auto* buttons = new QWidget(w);
        auto* buttonRow = new QHBoxLayout(buttons);
        buttonRow->setContentsMargins(0, 0, 0, 0);
        buttonRow->setSpacing(6);
        auto orient = [&](const QString& icon, const QString& tip, std::function<void()> action) {
            auto* b = new QToolButton(buttons);
            b->setIcon(symbol(icon));
            b->setToolTip(tip);
            b->setAccessibleName(tip);
            b->setMinimumSize(30, 26);
            connect(b, &QToolButton::clicked, this, action);
            buttonRow->addWidget(b);
        };
        orient(QStringLiteral("rotate.right"), tr("Rotate right"), [model] { model->setQuarterTurns((model->quarterTurns() + 1) % 4); });
        orient(QStringLiteral("rotate.left"), tr("Rotate left"), [model] { model->setQuarterTurns((model->quarterTurns() + 3) % 4); });
        buttonRow->addWidget(divider(Qt::Vertical, buttons));
        orient(QStringLiteral("flip.horizontal"), tr("Flip horizontal"), [model] { model->flipHorizontal(); });
        orient(QStringLiteral("flip.vertical"), tr("Flip vertical"), [model] { model->flipVertical(); });
        buttonRow->addStretch();
        l->addWidget(buttons);
        rows->addWidget(w);
        rows->addWidget(divider(Qt::Horizontal, m_settings));
    }

    // 2. The collage callout.
    {
        auto [w, l] = vbox(m_settings);
        w->setObjectName(QStringLiteral("collageCallout"));
        w->setStyleSheet(QStringLiteral("#collageCallout { background: palette(alternate-base); border-radius: 8px; }"));
        l->setContentsMargins(10, 10, 10, 10);
        l->addWidget(symbolLabel(QStringLiteral("square.grid.2x2"), tr("Looks like a collage"), w));
        auto* detected = captionLabel(QString(), w);
        auto* split = new QPushButton(w);
        split->setDefault(true);
        split->setToolTip(tr("Save each detected image as its own file in a folder you choose."));
        connect(split, &QPushButton::clicked, model, &CropModel::splitCollage);
        m_refreshers.push_back([model, detected, split] {
            const qint64 n = model->collageRects().size();
            detected->setText(n == 1 ? tr("1 image detected.") : tr("%1 images detected.").arg(n));
            split->setText(tr("Split into %1 files").arg(n));
        });
        l->addWidget(detected);
        l->addWidget(split);
        auto* line = divider(Qt::Horizontal, m_settings);
        m_refreshers.push_back([model, w, line] {
            const bool collage = model->collageRects().size() >= 2;
            setShown(w, collage, 200, Qt::Vertical);
            line->setVisible(collage);
        });
        rows->addWidget(w);
        rows->addWidget(line);
    }

    // 3. Crop.
    {
        auto [body, l] = vbox(m_settings);
        auto* edit = new QPushButton(symbol(QStringLiteral("crop")), tr("Edit Crop…"), body);
        connect(edit, &QPushButton::clicked, this, &SettingsSidebar::editCropRequested);
        m_refreshers.push_back([model, edit] { edit->setEnabled(model->active() != nullptr); });
        l->addWidget(edit);
        rows->addWidget(section(tr("Crop"), QStringLiteral("crop.rotate"), &CropModel::manualCropEnabled,
                                &CropModel::setManualCropEnabled, body, 0));
        rows->addWidget(divider(Qt::Horizontal, m_settings));
    }
    // 4. Trim to content.
    {
        auto [body, l] = vbox(m_settings);
        l->addWidget(sliderRow(body, QStringLiteral("circle.dashed"), QStringLiteral("circle.dashed.inset.filled"), 0, 100,
                               &CropModel::threshold, &CropModel::setThreshold));
        rows->addWidget(section(tr("Trim to content"), QStringLiteral("crop"), &CropModel::trimEnabled,
                                &CropModel::setTrimEnabled, body, 150));
        rows->addWidget(divider(Qt::Horizontal, m_settings));
    }
    // 5. Remove background.
    {
        auto [body, l] = vbox(m_settings);
        auto* mode = segmented(body, {tr("White"), tr("Subject")}, [model] { return int(model->bgRemovalMode()); },
                               [model](int i) { model->setBgRemovalMode(BGRemovalMode(i)); });
        showWhile(mode, [model] { return model->subjectModeOffered(); });
        l->addWidget(mode);
        auto* threshold = sliderRow(body, QStringLiteral("square"), QStringLiteral("square.dashed"), 0, 100,
                                    &CropModel::keyThreshold, &CropModel::setKeyThreshold);
        auto* internal = checkbox(body, tr("Include internal areas"),
                                  tr("Also key enclosed white pockets — eye whites, letter counters — not just the "
                                     "background around the subject."),
                                  &CropModel::keyInternal, &CropModel::setKeyInternal);
        showWhile(threshold, [model] { return model->bgRemovalMode() == BGRemovalMode::white; });
        showWhile(internal, [model] { return model->bgRemovalMode() == BGRemovalMode::white; });
        const StatusLine status = statusLine(body);
        m_refreshers.push_back([model, status] {
            status.row->setVisible(model->bgRemovalMode() == BGRemovalMode::subject &&
                                   (model->isDetectingSubject() || model->subjectNotFound()));
            status.spinner->setVisible(model->isDetectingSubject());
            status.warning->setVisible(!model->isDetectingSubject());
            status.text->setText(model->isDetectingSubject() ? tr("Detecting subject…") : tr("No subject found — try White."));
        });
        l->addWidget(threshold);
        l->addWidget(internal);
        l->addWidget(status.row);
        rows->addWidget(section(tr("Remove background"), QStringLiteral("wand.and.stars"), &CropModel::keyWhiteEnabled,
                                &CropModel::setKeyWhiteEnabled, body, 150));
        rows->addWidget(divider(Qt::Horizontal, m_settings));
    }
    // 6. Sticker outline.
    {
        auto [body, l] = vbox(m_settings);
        l->addWidget(sliderRow(body, QStringLiteral("pencil.tip"), QStringLiteral("pencil.tip.crop.circle"), 0, 40,
                               &CropModel::strokeWidth, &CropModel::setStrokeWidth));
        rows->addWidget(section(tr("Sticker outline"), QStringLiteral("seal"), &CropModel::stickerEnabled,
                                &CropModel::setStickerEnabled, body, 150));
        rows->addWidget(divider(Qt::Horizontal, m_settings));
    }
    // 7. Add padding.
    {
        auto [body, l] = vbox(m_settings);
        auto* uniform = sliderRow(body, QStringLiteral("square"), QStringLiteral("square.dashed"), 0, 512,
                                  &CropModel::padAmount, &CropModel::setPadAmount);
        showWhile(uniform, [model] { return model->paddingUniform(); });
        l->addWidget(uniform);
        auto side = [&](const QString& label, const double& (CropModel::*get)() const, void (CropModel::*set)(const double&)) {
            auto* w = new QWidget(body);
            auto* row = new QHBoxLayout(w);
            row->setContentsMargins(0, 0, 0, 0);
            row->setSpacing(8);
            auto* name = captionLabel(label, w);
            name->setFixedWidth(48);
            row->addWidget(name);
            row->addWidget(slider(w, 0, 512, get, set), 1);
            row->addWidget(readout(w, 30, [model, get] { return rounded((model->*get)()); }));
            showWhile(w, [model] { return !model->paddingUniform(); });
            l->addWidget(w);
        };
        side(tr("Top"), &CropModel::padTop, &CropModel::setPadTop);
        side(tr("Right"), &CropModel::padRight, &CropModel::setPadRight);
        side(tr("Bottom"), &CropModel::padBottom, &CropModel::setPadBottom);
        side(tr("Left"), &CropModel::padLeft, &CropModel::setPadLeft);
        l->addWidget(checkbox(body, tr("Same on all sides"), tr("Pad every side by the same amount, or set each side on its own."),
                              &CropModel::paddingUniform, &CropModel::setPaddingUniform));
        rows->addWidget(section(tr("Add padding"), QStringLiteral("padding"), &CropModel::paddingEnabled,
                                &CropModel::setPaddingEnabled, body, 0));
        rows->addWidget(divider(Qt::Horizontal, m_settings));
    }
    // 8. Add background.
    {
        auto [body, l] = vbox(m_settings);
        l->addWidget(segmented(body, {tr("Color"), tr("Gradient"), tr("Image")}, [model] { return int(model->backgroundKind()); },
                               [model](int i) { model->setBackgroundKind(BackgroundKind(i)); }));
        auto swatch = [this](QWidget* parent, const QString& label, const QColor& (CropModel::*get)() const,
                             void (CropModel::*set)(const QColor&)) {
            auto* row = new ColorSwatchRow(
                label, [this, get] { return (m_model.data()->*get)(); },
                [this, set](const QColor& c) { (m_model.data()->*set)(c); }, parent);
            m_refreshers.push_back([row] { row->colorChanged(); });
            return row;
        };
        auto* colour = swatch(body, tr("Background color"), &CropModel::backgroundColor, &CropModel::setBackgroundColor);
        showWhile(colour, [model] { return model->backgroundKind() == BackgroundKind::color; });
        l->addWidget(colour);
        auto* ends = new QWidget(body);
        auto* endsRow = new QHBoxLayout(ends);
        endsRow->setContentsMargins(0, 0, 0, 0);
        endsRow->setSpacing(12);
        endsRow->addWidget(swatch(ends, tr("From"), &CropModel::gradientStart, &CropModel::setGradientStart));
        endsRow->addWidget(swatch(ends, tr("To"), &CropModel::gradientEnd, &CropModel::setGradientEnd));
        auto* angle = new QWidget(body);
        auto* angleRow = new QHBoxLayout(angle);
        angleRow->setContentsMargins(0, 0, 0, 0);
        angleRow->setSpacing(8);
        angleRow->addWidget(tertiarySymbol(QStringLiteral("angle"), angle));
        angleRow->addWidget(slider(angle, 0, 360, &CropModel::gradientAngle, &CropModel::setGradientAngle), 1);
        angleRow->addWidget(readout(angle, 34, [model] { return QStringLiteral("%1°").arg(qint64(std::trunc(model->gradientAngle()))); }));
        showWhile(ends, [model] { return model->backgroundKind() == BackgroundKind::gradient; });
        showWhile(angle, [model] { return model->backgroundKind() == BackgroundKind::gradient; });
        l->addWidget(ends);
        l->addWidget(angle);
        auto* choose = new QPushButton(symbol(QStringLiteral("photo")), tr("Choose Image…"), body);
        connect(choose, &QPushButton::clicked, model, &CropModel::chooseBackgroundImage);
        auto* picture = new QWidget(body);
        auto* pictureRow = new QHBoxLayout(picture);
        pictureRow->setContentsMargins(0, 0, 0, 0);
        pictureRow->setSpacing(9);
        auto* thumb = new QLabel(picture);
        auto* name = new QLabel(picture);
        auto* change = new QToolButton(picture);
        change->setIcon(symbol(QStringLiteral("arrow.triangle.2.circlepath")));
        change->setToolTip(tr("Choose a different image"));
        change->setAutoRaise(true);
        connect(change, &QToolButton::clicked, model, &CropModel::chooseBackgroundImage);
        auto* clear = new QToolButton(picture);
        clear->setIcon(symbol(QStringLiteral("trash")));
        clear->setToolTip(tr("Remove background image"));
        clear->setAutoRaise(true);
        connect(clear, &QToolButton::clicked, model, &CropModel::clearBackgroundImage);
        pictureRow->addWidget(thumb);
        pictureRow->addWidget(name, 1);
        pictureRow->addWidget(change);
        pictureRow->addWidget(clear);
        m_refreshers.push_back([model, choose, picture, thumb, name] {
            const bool isImage = model->backgroundKind() == BackgroundKind::image;
            const bool has = !model->backgroundImage().isNull() && !model->backgroundImageURL().isEmpty();
            choose->setVisible(isImage && !has);
            picture->setVisible(isImage && has);
            if (has) {
                thumb->setPixmap(QPixmap::fromImage(model->backgroundImage().scaled(34, 26, Qt::KeepAspectRatioByExpanding,
                                                                                    Qt::SmoothTransformation)
                                                       .copy(0, 0, 34, 26)));
                name->setText(QFontMetrics(name->font()).elidedText(QFileInfo(model->backgroundImageURL()).fileName(),
                                                                   Qt::ElideMiddle, 120));
            }
        });
        l->addWidget(choose);
        l->addWidget(picture);
        rows->addWidget(section(tr("Add background"), QStringLiteral("square.fill.on.square.fill"),
                                &CropModel::backgroundEnabled, &CropModel::setBackgroundEnabled, body, 0));
        rows->addWidget(divider(Qt::Horizontal, m_settings));
    }
    // 9. Resize.
    {
        auto [body, l] = vbox(m_settings);
        auto* sizes = new QWidget(body);
        auto* sizesRow = new QHBoxLayout(sizes);
        sizesRow->setContentsMargins(0, 0, 0, 0);
        sizesRow->setSpacing(6);
        auto pixelField = [&](const double& (CropModel::*get)() const, void (CropModel::*set)(const double&)) {
            auto* field = new QLineEdit(sizes);
            field->setFixedWidth(64);
            field->setAlignment(Qt::AlignRight);
            connect(field, &QLineEdit::editingFinished, this, [this, field, set] {
                bool ok = false;
                const double v = QLocale().toDouble(field->text(), &ok);
                if (ok && !m_refreshing) (m_model.data()->*set)(v);
                else refresh(); // text that doesn't parse goes back to the field's value
            });
            m_refreshers.push_back([this, field, get] {
                if (!field->hasFocus()) field->setText(QLocale().toString((m_model.data()->*get)(), 'f', 0));
            });
            return field;
        };
        sizesRow->addWidget(pixelField(&CropModel::resizeWidth, &CropModel::setResizeWidth));
        sizesRow->addWidget(new QLabel(QStringLiteral("×"), sizes));
        sizesRow->addWidget(pixelField(&CropModel::resizeHeight, &CropModel::setResizeHeight));
        sizesRow->addWidget(captionLabel(tr("px"), sizes));
        sizesRow->addStretch();
        l->addWidget(sizes);
        l->addWidget(checkbox(body, tr("Lock aspect ratio"), tr("Keep the source proportion; off stretches to exactly the entered size."),
                              &CropModel::resizeLockAspect, &CropModel::setResizeLockAspect));
        l->addWidget(checkbox(body, tr("Canvas size"),
                              tr("Change the canvas to width × height without scaling — the image is centered, padded with "
                                 "transparency where larger and cropped where smaller."),
                              &CropModel::resizeCanvas, &CropModel::setResizeCanvas));
        rows->addWidget(section(tr("Resize"), QStringLiteral("resize"), &CropModel::resizeEnabled,
                                &CropModel::setResizeEnabled, body, 150));
        rows->addWidget(divider(Qt::Horizontal, m_settings));
    }
    // 10. Vectorize.
    {
        auto [body, l] = vbox(m_settings);
        l->addWidget(checkbox(body, tr("Full color"),
                              tr("Trace every flat colour into its own layer (region growing) instead of one silhouette. "
                                 "Best for flat art and illustrations."),
                              &CropModel::vectorFullColor, &CropModel::setVectorFullColor));
        auto dial = [&](const QString& label, const QString& icon, const double& (CropModel::*get)() const,
                        void (CropModel::*set)(const double&), double lo, double hi) {
            auto [w, dl] = vbox(body, 3);
            auto* head = new QWidget(w);
            auto* headRow = new QHBoxLayout(head);
            headRow->setContentsMargins(0, 0, 0, 0);
            headRow->setSpacing(6);
            headRow->addWidget(tertiarySymbol(icon, head));
            headRow->addWidget(captionLabel(label, head), 1);
            headRow->addWidget(readout(head, 30, [model, get] { return rounded((model->*get)()); }));
            dl->addWidget(head);
            dl->addWidget(slider(w, lo, hi, get, set));
            showWhile(w, [model] { return model->vectorFullColor(); });
            l->addWidget(w);
        };
        dial(tr("Color grouping"), QStringLiteral("circle.dashed"), &CropModel::vectorTolerance, &CropModel::setVectorTolerance, 0, 100);
        dial(tr("Denoise"), QStringLiteral("aqi.medium"), &CropModel::vectorDenoise, &CropModel::setVectorDenoise, 1, 3);
        auto* style = segmented(body, {tr("Silhouette"), tr("Outline")}, [model] { return int(model->vectorizeStyle()); },
                                [model](int i) { model->setVectorizeStyle(VectorizeStyle(i)); });
        showWhile(style, [model] { return !model->vectorFullColor(); });
        l->addWidget(style);
        auto* stroke = sliderRow(body, QStringLiteral("minus"), QStringLiteral("lineweight"), 0.5, 12,
                                 &CropModel::vectorStrokeWidth, &CropModel::setVectorStrokeWidth);
        showWhile(stroke, [model] { return !model->vectorFullColor() && model->vectorizeStyle() == VectorizeStyle::outline; });
        l->addWidget(stroke);
        const StatusLine status = statusLine(body);
        m_refreshers.push_back([model, status] {
            const auto text = model->vectorStatusText();
            status.row->setVisible(model->vectorizeEnabled() && text.has_value());
            status.spinner->setVisible(model->isVectorizing());
            status.warning->setVisible(!model->isVectorizing() && model->vectorTooDetailed());
            if (text) status.text->setText(*text);
        });
        l->addWidget(status.row);
        rows->addWidget(section(tr("Vectorize"), QStringLiteral("scribble.variable"), &CropModel::vectorizeEnabled,
                                &CropModel::setVectorizeEnabled, body, 150));
    }

    // Foot: the status row and the action buttons.
    column->addWidget(divider(Qt::Horizontal, this));
    auto* foot = new QWidget(this);
    auto* footColumn = new QVBoxLayout(foot);
    footColumn->setContentsMargins(14, 14, 14, 14);
    footColumn->setSpacing(10);
    m_status = new QLabel(foot);
    m_status->setWordWrap(true);
    footColumn->addWidget(m_status);
    auto button = [&](const QString& text, bool prominent, void (CropModel::*action)()) {
        auto* b = new QPushButton(text, foot);
        b->setMinimumHeight(30);
        if (prominent) b->setDefault(true);
        connect(b, &QPushButton::clicked, model, action);
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
    for (const auto& apply : m_refreshers) apply();

    bool warning = false;
    const QString text = statusText(m, &warning);
    m_status->setVisible(!text.isEmpty());
    const QString colour = warning ? QStringLiteral("#d9730d") : QStringLiteral("#2e9d4f");
    m_status->setText(QStringLiteral("<span style='color:%1'>%2 %3</span>")
                          .arg(colour, warning ? QStringLiteral("⚠") : QStringLiteral("✔"), text.toHtmlEscaped()));

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
