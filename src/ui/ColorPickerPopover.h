#pragma once

#include <QAbstractButton>
#include <QColor>
#include <QPointer>
#include <QStringList>
#include <QWidget>

#include <functional>
#include <optional>

class QLineEdit;
class QLabel;

namespace cutlark {

/// The colour control's popup: a saturation/brightness pad, hue and alpha strips, a palette and a
/// hexadecimal field, editing one bound colour. Its own hue, saturation, brightness and alpha are the
/// truth while it is open; a write that changes a component by less than 0.004 isn't passed on, and
/// the change notification that a write of ours causes is ignored, so the two sides never fight.
class ColorPickerPopover : public QWidget {
    Q_OBJECT

public:
    struct HSB {
        double hue, sat, bri;
    };

    ColorPickerPopover(std::function<QColor()> get, std::function<void(const QColor&)> set,
                       std::function<void(double, double, double, double)> onApplyRGBA = {},
                       QWidget* parent = nullptr);

    /// The five rows of eleven palette entries; the last entry is "CLEAR".
    static const QList<QStringList>& palette();
    /// "ff8800", "#FF8800", "FF#8800", with blanks or line feeds round them: the colour's HSB. Absent
    /// for anything that isn't six hexadecimal digits.
    static std::optional<HSB> parseHex(const QString& text);
    /// The alpha as the percentage shows it: "13%" for 0.125, "12%" for 0.124.
    static QString percentText(double alpha);

    double hue() const { return m_hue; }
    double sat() const { return m_sat; }
    double bri() const { return m_bri; }
    double alpha() const { return m_alpha; }
    QString hexText() const { return m_hexText; }
    bool suppressingInbound() const { return m_suppressInbound; }

    /// The bound colour changed: follow it, unless the change is our own write.
    void colorChanged();
    /// Takes the bound colour's components into the local state.
    void syncFrom(const QColor& color);

    // The user's gestures, in the areas' own coordinates (values outside are clamped).
    void dragPad(double x, double y);
    void dragHue(double x);
    void dragAlpha(double x);
    void pickPalette(int row, int column);
    /// Sets the hex field's text and commits it as Return would.
    void commitHex(const QString& text);

    static constexpr int kWidth = 220;
    /// Room round the pad and the strips, so that a thumb at either end is drawn whole.
    static constexpr int kEdge = 9;

    /// Where the three thumbs are drawn now: on the pad, the hue strip and the alpha strip.
    QList<QRectF> thumbRects() const;

    /// The part the keyboard works on: Tab goes from the pad to the hue strip, the alpha strip and
    /// the palette, then on to the hex field.
    enum class KeyArea { pad, hue, alpha, palette };
    KeyArea keyArea() const { return m_keyArea; }
    /// The palette entry the arrows have reached (row, column).
    QPoint paletteCursor() const { return m_paletteCursor; }
    /// What a palette entry under `p` is called ("#FF3B30", or "Clear"); empty elsewhere.
    QString toolTipAt(const QPointF& p) const;

protected:
    void paintEvent(QPaintEvent*) override;
    void keyPressEvent(QKeyEvent* e) override;
    bool focusNextPrevChild(bool next) override;
    bool event(QEvent* e) override;
    void mousePressEvent(QMouseEvent* e) override;
    void mouseMoveEvent(QMouseEvent* e) override;

private:
    void setLocal(double hue, double sat, double bri, double alpha);
    void pushOut();
    void dragAt(const QPointF& p, bool press);
    QRectF padRect() const;
    QRectF hueRect() const;
    QRectF alphaRect() const;
    QRectF swatchRect(int row, int column) const;

    std::function<QColor()> m_get;
    std::function<void(const QColor&)> m_set;
    std::function<void(double, double, double, double)> m_onApplyRGBA;
    double m_hue = 0, m_sat = 1, m_bri = 1, m_alpha = 1;
    QString m_hexText = QStringLiteral("FFFFFF");
    bool m_suppressInbound = false;
    int m_dragArea = -1; // 0 pad, 1 hue, 2 alpha
    KeyArea m_keyArea = KeyArea::pad;
    QPoint m_paletteCursor{0, 0};
    void describeKeyArea();
    QLineEdit* m_hexField;
    QLabel* m_percent;
};

/// A labelled swatch; a click opens the picker beside it.
class ColorSwatchRow : public QAbstractButton {
    Q_OBJECT

public:
    ColorSwatchRow(const QString& label, std::function<QColor()> get, std::function<void(const QColor&)> set,
                   QWidget* parent = nullptr);
    QSize sizeHint() const override;
    /// The bound colour changed (from the picker or from elsewhere).
    void colorChanged();
    ColorPickerPopover* popover() const { return m_popover.data(); }
    /// Where a popover of `size` goes for a row at `anchor` (global coordinates): to the row's left,
    /// centred on it, else to its right when the left has no room; always whole on `screen` (the
    /// screen's available area), pushed in from any edge it would cross.
    static QPoint popoverPosition(const QRect& anchor, const QSize& size, const QRect& screen);

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::function<QColor()> m_get;
    std::function<void(const QColor&)> m_set;
    QPointer<ColorPickerPopover> m_popover;
};

/// White with grey 4-point squares, the top-left one grey: what shows through transparent colours.
void paintCheckerboardPattern(class QPainter& p, const QRectF& r);

} // namespace cutlark
