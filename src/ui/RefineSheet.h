#pragma once

#include "engines/MaskEdits.h"

#include <QDialog>
#include <QImage>
#include <QList>

class QAbstractButton;
class QLabel;
class QSlider;

namespace cutlark {

class RefineCanvas;

/// The modal sheet in which a subject cutout is touched up by hand: Erase and Restore brushes with
/// a size and a softness, Drop Island, undo and redo of its own. Nothing in the model changes until
/// "Done"; `edits()` is then what the item gets.
class RefineSheet : public QDialog {
    Q_OBJECT

public:
    /// `source` and `cutout` unturned, the item's edits so far, and how the item is turned.
    RefineSheet(const QImage& source, const QImage& cutout, const MaskEdits& edits, int quarterTurns,
                bool mirrored, QWidget* parent = nullptr);

    const MaskEdits& edits() const { return m_edits; }
    RefineCanvas* canvas() const { return m_canvas; }
    MaskEdit::Kind tool() const { return m_kind; }
    void setTool(MaskEdit::Kind kind);
    /// The brush's diameter as a fraction of the picture's longer side; [ and ] step it by a quarter.
    double brushSize() const { return m_size; }
    void setBrushSize(double size);
    void setSoftness(double softness);
    bool canUndo() const { return !m_undo.isEmpty(); }
    bool canRedo() const { return !m_redo.isEmpty(); }
    void undo();
    void redo();
    /// Takes every edit away (one step to undo).
    void clear();

protected:
    void keyPressEvent(QKeyEvent* e) override;

private:
    void push(const MaskEdits& next);
    void sync();

    RefineCanvas* m_canvas;
    MaskEdits m_edits;
    QList<MaskEdits> m_undo;
    QList<MaskEdits> m_redo;
    MaskEdit::Kind m_kind = MaskEdit::Kind::erase;
    double m_size = 0.04;
    double m_softness = 0.5;
    int m_longSide;
    QList<QAbstractButton*> m_tools;
    QSlider* m_sizeSlider;
    QSlider* m_softSlider;
    QLabel* m_sizeLabel;
    QAbstractButton* m_undoButton;
    QAbstractButton* m_redoButton;
};

} // namespace cutlark
