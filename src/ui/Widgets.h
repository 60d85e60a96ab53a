#pragma once

#include <QAbstractButton>
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
QLabel* secondaryLabel(const QString& text, QWidget* parent = nullptr);

/// A thin horizontal or vertical line.
QWidget* divider(Qt::Orientation orientation, QWidget* parent = nullptr);

} // namespace cutlark
