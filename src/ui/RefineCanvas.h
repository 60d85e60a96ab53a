#pragma once

#include "engines/MaskEdits.h"

#include <QImage>
#include <QPainter>
#include <QTransform>
#include <QWidget>

#include <optional>

namespace cutlark {

/// The work area of the refine sheet: the cutout over a checkerboard with the removed part of the
/// photograph faintly behind it, turned as the item is, zoomed and panned; the brush drawn with the
/// mouse. It works on a copy at most `kPreviewSide` pixels long; what it hands back are edits in the
/// source's normalised coordinates, applied at full size by the pipeline.
class RefineCanvas : public QWidget {
    Q_OBJECT

public:
    static constexpr int kPreviewSide = 2048;

    RefineCanvas(const QImage& source, const QImage& cutout, int quarterTurns, bool mirrored,
                 QWidget* parent = nullptr);

    /// The edits shown (all committed); the picture is rebuilt from the cutout with them.
    void setEdits(const MaskEdits& edits);
    /// The tool: Erase, Restore (brushes of `size` and `softness`) or Drop Island (a click).
    void setTool(MaskEdit::Kind kind, double size, double softness);

    /// A stroke as the mouse draws it, by points of the turned picture (normalised): the first
    /// point starts it, each next one draws a segment at once, the end hands it over
    /// (`strokeFinished`). A click of Drop Island is a stroke of one point.
    void beginStroke(const QPointF& oriented);
    void extendStroke(const QPointF& oriented);
    void endStroke();
    bool drawing() const { return m_stroke.has_value(); }

    /// The zoom over the fitted picture (1 … 32) about a point of the widget; 1 fits it again.
    double zoom() const { return m_zoom; }
    void zoomAbout(double zoom, const QPointF& at);
    void fit();

    /// Where the picture lies in the widget; a point of the widget as a point of the turned picture.
    QRectF imageRect() const;
    QPointF toOriented(const QPointF& widgetPoint) const;
    /// The working copy as shown: unturned, with the edits and the stroke being drawn.
    const QImage& preview() const { return m_view; }

signals:
    void strokeFinished(const MaskEdit& edit);

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent* e) override;
    void mouseMoveEvent(QMouseEvent* e) override;
    void mouseReleaseEvent(QMouseEvent* e) override;
    void wheelEvent(QWheelEvent* e) override;
    void leaveEvent(QEvent*) override;

private:
    QTransform previewToWidget() const;
    /// While a stroke is drawn: the box above the pointer where the loupe shows it four times larger.
    QRectF loupeBox() const;
    void paintLoupe(QPainter& p);
    void paintChecker(QPainter& p, const QRectF& area) const;
    QSizeF orientedSize() const;
    void clampPan();

    QImage m_source;    // the photograph, small
    QImage m_cutout;    // the network's cutout, small
    QImage m_committed; // the cutout with every committed edit
    QImage m_view;      // the same with the stroke being drawn
    QImage m_cover;     // the stroke's coverage so far
    QImage m_dimmed;    // what was removed, shown faintly behind
    int m_turns;
    bool m_mirrored;
    MaskEdit::Kind m_kind = MaskEdit::Kind::erase;
    double m_size = 0.04;
    double m_softness = 0.5;
    std::optional<MaskEdit> m_stroke; // in the source's normalised coordinates
    double m_zoom = 1;
    QPointF m_pan; // the picture's centre's offset from the widget's, in points
    std::optional<QPointF> m_panFrom;
    std::optional<QPointF> m_cursor;
};

} // namespace cutlark
