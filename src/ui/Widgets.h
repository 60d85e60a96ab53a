#pragma once

#include <QAbstractButton>
#include <QCheckBox>
#include <QIcon>
#include <QLabel>
#include <QString>

// Small building blocks of the window: the switch, symbols by name, and a few label styles.
namespace cutlark {

/// A pill-shaped on/off switch without a label.
class ToggleSwitch : public QAbstractButton {
    Q_OBJECT
public:
    explicit ToggleSwitch(QWidget* parent = nullptr);
    QSize sizeHint() const override { return QSize(34, 20); }

protected:
    void paintEvent(QPaintEvent*) override;
};

/// A one-line label that cuts its text to the width it is given, with an ellipsis where `mode` says
/// (in the middle for file names, so that the extension stays readable). Asks for the whole text's
/// width but can be squeezed to a few characters; the whole text is its tooltip when cut.
class ElidedLabel : public QLabel {
    Q_OBJECT
public:
    explicit ElidedLabel(const QString& text = QString(), Qt::TextElideMode mode = Qt::ElideRight,
                         QWidget* parent = nullptr);
    QSize minimumSizeHint() const override;
    /// True when the text doesn't fit and is shown cut.
    bool isElided() const;

protected:
    void paintEvent(QPaintEvent*) override;

private:
    Qt::TextElideMode m_mode;
};

/// A checkbox whose label is cut with an ellipsis when the row is too narrow for it.
class ElidedCheckBox : public QCheckBox {
    Q_OBJECT
public:
    explicit ElidedCheckBox(const QString& text, QWidget* parent = nullptr);
    QSize minimumSizeHint() const override;
    QSize sizeHint() const override;
    const QString& fullText() const { return m_full; }

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void elide();
    QString m_full;
};

/// Makes the desktop's icon theme reachable, with Breeze where the session names none (as under the
/// offscreen platform plugin and on minimal desktops). Call once after the application is made.
void setUpIcons();

/// The icon standing for one of the window's symbols, from the desktop's icon theme (Breeze as the
/// fallback). Unknown names give an empty icon.
QIcon symbol(const QString& name);

/// A label of a symbol and a text in one row.
QWidget* symbolLabel(const QString& symbolName, const QString& text, QWidget* parent = nullptr);

/// Text styles: a label made smaller and dimmed like a caption, or secondary body text.
QLabel* captionLabel(const QString& text, QWidget* parent = nullptr);

/// How much bigger than 10 points `font` is (1 at 10 points or less): what the columns grow by.
double fontScale(const QFont& font);

/// WCAG's contrast ratio of two colours, 1 to 21.
double contrastRatio(const QColor& a, const QColor& b);
/// The palette's accent for text on its window colour: the highlight itself when it reads at 4.5:1
/// or better, else the same hue made lighter (on a dark window) or darker until it does.
QColor readableAccent(const QPalette& palette);
QLabel* secondaryLabel(const QString& text, QWidget* parent = nullptr);

/// A thin horizontal or vertical line.
QWidget* divider(Qt::Orientation orientation, QWidget* parent = nullptr);

} // namespace cutlark
