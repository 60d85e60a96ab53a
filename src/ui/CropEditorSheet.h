#pragma once

#include <QDialog>
#include <QImage>
#include <QRectF>

#include <functional>
#include <optional>

namespace cutlark {

/// The places on a crop rectangle that can be dragged: corners, edge middles, and the body.
enum class CropHandle { nw, n, ne, e, se, s, sw, w, body };

/// The geometry of the crop editor, as plain functions of numbers (crops are normalized: fractions of
/// the oriented image, top-left origin).
namespace CropGeometry {

constexpr double kMinimumSize = 0.02;

/// The image of `imageSize` scaled to fit `area`, centred.
QRectF aspectFit(const QSizeF& imageSize, const QSizeF& area);
/// A crop kept inside the image with at least 2 % each way.
QRectF sanitized(const QRectF& r);
/// Four edges turned into a crop that keeps 2 % and stays inside the image; an edge pushed past its
/// opposite stops short of it.
QRectF edgeClamp(double left, double top, double right, double bottom);
/// The place of a handle on a rectangle.
QPointF point(CropHandle handle, const QRectF& r);
/// The crop after dragging `handle` by `translation` points from `base`, snapped to whole pixels.
QRectF dragged(const QRectF& base, CropHandle handle, const QPointF& translation, const QRectF& imgRect,
               const QSize& imagePixels);
/// The crop after an arrow key: `dx`, `dy` in −1 … 1, `step` pixels (1, or 10 with Shift); no snapping.
QRectF nudged(const QRectF& crop, CropHandle handle, int dx, int dy, int step, const QSize& imagePixels);

/// Where the loupe sits and what it shows for a point `p` in the work area.
struct Loupe {
    double zoom;    ///< at least 3, and enough for one image pixel to be 10 points wide
    double cell;    ///< points per image pixel inside the loupe
    QPointF centre; ///< 28 above the point, kept 8 from the image's edges
    double offX, offY;
    double u, v; ///< the pixel corner at the loupe's centre, normalized
};
Loupe loupe(const QPointF& p, const QRectF& imgRect, const QSize& imagePixels);

} // namespace CropGeometry

class CropEditorOverlay;

/// The modal sheet in which the manual crop is drawn on the turned image. Nothing in the model changes
/// until "Done", which hands the crop to `onCommit`.
class CropEditorSheet : public QDialog {
    Q_OBJECT

public:
    CropEditorSheet(const QImage& image, const QRectF& initialCrop, QWidget* parent = nullptr);

    QRectF crop() const;
    std::optional<CropHandle> selectedHandle() const;
    CropEditorOverlay* overlay() const { return m_overlay; }

    /// Sets the crop to the artwork's bounds at the fixed threshold 25; beeps when there is none.
    void runAutoDetect();
    void reset();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QImage m_image;
    CropEditorOverlay* m_overlay;
};

/// The work area: the image, the dims outside the crop, the outlines, the eight handles and the loupe.
class CropEditorOverlay : public QWidget {
    Q_OBJECT

public:
    /// Room round the picture for the handles on its edges: a selected handle's radius and glow.
    static constexpr double kHandleRoom = 12;

    CropEditorOverlay(const QImage& image, QWidget* parent = nullptr);

    QRectF crop() const { return m_crop; }
    void setCrop(const QRectF& crop);
    std::optional<CropHandle> selectedHandle() const { return m_selected; }
    void setSelectedHandle(std::optional<CropHandle> handle);
    /// Where the image lies in the widget, in points.
    QRectF imgRect() const;
    QRectF cropRect() const;
    /// The handle under a point, if any (handles before the body; the body is the crop's inside).
    std::optional<CropHandle> hit(const QPointF& p) const;
    /// Moves the selected handle by one pixel (or ten) in a direction; nothing without a selection.
    void nudge(int dx, int dy, bool tenPixels);
    /// The point the loupe shows, if it shows.
    std::optional<QPointF> loupePoint() const;

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent* e) override;
    void mouseMoveEvent(QMouseEvent* e) override;
    void mouseReleaseEvent(QMouseEvent* e) override;

private:
    void paintLoupe(QPainter& p, const QPointF& at);

    QImage m_image;
    QRectF m_crop{0, 0, 1, 1};
    std::optional<CropHandle> m_selected;
    std::optional<CropHandle> m_active;
    std::optional<CropHandle> m_pressed;
    QPointF m_pressAt;
    std::optional<QRectF> m_dragBase;
    std::optional<QPointF> m_dragLocation;
};

} // namespace cutlark
