#include "ui/RefineSheet.h"

#include "ui/RefineCanvas.h"
#include "ui/Widgets.h"

#include <QButtonGroup>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QSlider>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace cutlark {

namespace {

// The size slider runs over the brush's diameter in pixels of the picture, on a logarithmic scale
// from 2 pixels to half the longer side, in 200 steps.
constexpr int kSizeSteps = 200;

double sizeFromSlider(int v, int longSide) {
    const double lo = std::log(std::max(MaskEditing::kSmallestSize, 2.0 / longSide));
    const double hi = std::log(MaskEditing::kLargestSize);
    return std::exp(lo + (hi - lo) * v / kSizeSteps);
}

int sliderFromSize(double size, int longSide) {
    const double lo = std::log(std::max(MaskEditing::kSmallestSize, 2.0 / longSide));
    const double hi = std::log(MaskEditing::kLargestSize);
    return int(std::lround(std::clamp((std::log(size) - lo) / (hi - lo), 0.0, 1.0) * kSizeSteps));
}

} // namespace

RefineSheet::RefineSheet(const QImage& source, const QImage& cutout, const MaskEdits& edits, int quarterTurns,
                         bool mirrored, QWidget* parent)
    : QDialog(parent), m_canvas(new RefineCanvas(source, cutout, quarterTurns, mirrored, this)),
      m_edits(edits), m_longSide(std::max({source.width(), source.height(), 1})) {
    setWindowTitle(tr("Refine"));
    setModal(true);
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(16, 16, 16, 16);
    column->setSpacing(10);
    auto* title = new QLabel(tr("Refine"), this);
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);
    column->addWidget(title);

    // The tools, the brush, and the sheet's own history.
    auto* tools = new QHBoxLayout;
    auto* group = new QButtonGroup(this);
    const auto tool = [&](const QString& text, const QString& tip, MaskEdit::Kind kind) {
        auto* b = new QPushButton(text, this);
        b->setCheckable(true);
        b->setAutoDefault(false);
        b->setToolTip(tip);
        group->addButton(b);
        connect(b, &QPushButton::clicked, this, [this, kind] { setTool(kind); });
        tools->addWidget(b);
        m_tools << b;
    };
    tool(tr("Erase"), tr("Paint away what the cutout kept (E)"), MaskEdit::Kind::erase);
    tool(tr("Restore"), tr("Paint back what the cutout lost (R)"), MaskEdit::Kind::restore);
    tool(tr("Drop Island"), tr("Click a stray patch to remove it whole (D)"), MaskEdit::Kind::dropIsland);
    tools->addSpacing(12);
    m_sizeLabel = new QLabel(this);
    tools->addWidget(m_sizeLabel);
    m_sizeSlider = new QSlider(Qt::Horizontal, this);
    m_sizeSlider->setRange(0, kSizeSteps);
    m_sizeSlider->setAccessibleName(tr("Brush size"));
    m_sizeSlider->setToolTip(tr("Brush size ([ and ])"));
    connect(m_sizeSlider, &QSlider::valueChanged, this,
            [this](int v) { setBrushSize(sizeFromSlider(v, m_longSide)); });
    tools->addWidget(m_sizeSlider, 1);
    tools->addWidget(new QLabel(tr("Softness"), this));
    m_softSlider = new QSlider(Qt::Horizontal, this);
    m_softSlider->setRange(0, 100);
    m_softSlider->setAccessibleName(tr("Brush softness"));
    connect(m_softSlider, &QSlider::valueChanged, this, [this](int v) { setSoftness(v / 100.0); });
    tools->addWidget(m_softSlider, 1);
    column->addLayout(tools);
    column->addWidget(m_canvas, 1);

    auto* row = new QHBoxLayout;
    m_undoButton = new QPushButton(tr("Undo"), this);
    m_undoButton->setToolTip(tr("Undo the last stroke (Ctrl+Z)"));
    m_redoButton = new QPushButton(tr("Redo"), this);
    m_redoButton->setToolTip(tr("Redo (Ctrl+Shift+Z)"));
    auto* clearButton = new QPushButton(tr("Clear All"), this);
    clearButton->setToolTip(tr("Take every touch-up away: the network's cutout as it was"));
    auto* fitButton = new QPushButton(tr("Fit"), this);
    fitButton->setToolTip(tr("Show the whole picture (0); the wheel zooms, the middle button pans"));
    for (QPushButton* b : {static_cast<QPushButton*>(m_undoButton), static_cast<QPushButton*>(m_redoButton),
                           clearButton, fitButton}) {
        b->setAutoDefault(false);
        row->addWidget(b);
    }
    connect(m_undoButton, &QPushButton::clicked, this, &RefineSheet::undo);
    connect(m_redoButton, &QPushButton::clicked, this, &RefineSheet::redo);
    connect(clearButton, &QPushButton::clicked, this, &RefineSheet::clear);
    connect(fitButton, &QPushButton::clicked, m_canvas, &RefineCanvas::fit);
    row->addStretch();
    auto* cancel = new QPushButton(tr("Cancel"), this);
    cancel->setAutoDefault(false);
    connect(cancel, &QPushButton::clicked, this, &QDialog::reject);
    auto* done = new QPushButton(tr("Done"), this);
    done->setDefault(true);
    connect(done, &QPushButton::clicked, this, &QDialog::accept);
    row->addWidget(cancel);
    row->addWidget(done);
    column->addLayout(row);

    connect(m_canvas, &RefineCanvas::strokeFinished, this, [this](const MaskEdit& e) {
        MaskEdits next = m_edits;
        next << e;
        m_undo << m_edits;
        m_redo.clear();
        m_edits = next; // the canvas shows it already
        sync();
    });
    m_canvas->setEdits(m_edits);
    m_softSlider->setValue(int(std::lround(m_softness * 100)));
    m_sizeSlider->setValue(sliderFromSize(m_size, m_longSide));
    setTool(MaskEdit::Kind::erase);
    sync();
    m_canvas->setFocus();
}

void RefineSheet::setTool(MaskEdit::Kind kind) {
    m_kind = kind;
    m_tools[int(kind)]->setChecked(true);
    m_canvas->setTool(m_kind, m_size, m_softness);
}

void RefineSheet::setBrushSize(double size) {
    m_size =
        std::clamp(size, std::max(MaskEditing::kSmallestSize, 2.0 / m_longSide), MaskEditing::kLargestSize);
    const QSignalBlocker quiet(m_sizeSlider);
    m_sizeSlider->setValue(sliderFromSize(m_size, m_longSide));
    m_sizeLabel->setText(tr("Size %1 px").arg(std::lround(m_size * m_longSide)));
    m_canvas->setTool(m_kind, m_size, m_softness);
}

void RefineSheet::setSoftness(double softness) {
    m_softness = std::clamp(softness, 0.0, 1.0);
    const QSignalBlocker quiet(m_softSlider);
    m_softSlider->setValue(int(std::lround(m_softness * 100)));
    m_canvas->setTool(m_kind, m_size, m_softness);
}

void RefineSheet::push(const MaskEdits& next) {
    m_undo << m_edits;
    m_redo.clear();
    m_edits = next;
    m_canvas->setEdits(m_edits);
    sync();
}

void RefineSheet::undo() {
    if (m_undo.isEmpty() || m_canvas->drawing()) return;
    m_redo << m_edits;
    m_edits = m_undo.takeLast();
    m_canvas->setEdits(m_edits);
    sync();
}

void RefineSheet::redo() {
    if (m_redo.isEmpty() || m_canvas->drawing()) return;
    m_undo << m_edits;
    m_edits = m_redo.takeLast();
    m_canvas->setEdits(m_edits);
    sync();
}

void RefineSheet::clear() {
    if (!m_edits.isEmpty()) push({});
}

void RefineSheet::sync() {
    m_undoButton->setEnabled(canUndo());
    m_redoButton->setEnabled(canRedo());
}

void RefineSheet::keyPressEvent(QKeyEvent* e) {
    if (e->matches(QKeySequence::Undo)) return undo();
    if (e->matches(QKeySequence::Redo) ||
        (e->key() == Qt::Key_Z && e->modifiers() == (Qt::ControlModifier | Qt::ShiftModifier)))
        return redo();
    switch (e->key()) {
    case Qt::Key_E:
        return setTool(MaskEdit::Kind::erase);
    case Qt::Key_R:
        return setTool(MaskEdit::Kind::restore);
    case Qt::Key_D:
        return setTool(MaskEdit::Kind::dropIsland);
    case Qt::Key_BracketLeft:
        return setBrushSize(m_size / 1.25);
    case Qt::Key_BracketRight:
        return setBrushSize(m_size * 1.25);
    case Qt::Key_0:
        return m_canvas->fit();
    case Qt::Key_Plus:
    case Qt::Key_Equal:
        return m_canvas->zoomAbout(m_canvas->zoom() * 1.25, QRectF(m_canvas->rect()).center());
    case Qt::Key_Minus:
        return m_canvas->zoomAbout(m_canvas->zoom() / 1.25, QRectF(m_canvas->rect()).center());
    default:
        QDialog::keyPressEvent(e); // Esc and Return reach their buttons
    }
}

} // namespace cutlark
