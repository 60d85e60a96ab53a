#pragma once

#include "model/CropModel.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <functional>
#include <initializer_list>
#include <map>
#include <vector>

class QCheckBox;
class QLabel;
class QSlider;
class QVBoxLayout;
class QWidget;

namespace cutlark {

/// The sidebar's shared control factories, and the registry that moves each control when the
/// fields it shows change. Every control writes its model field as it moves; a control moved by the
/// model writes nothing back (writes are muted while controls follow the model). Ranges come from
/// the settings table.
class SidebarControls : public QObject {
    Q_OBJECT

public:
    using Field = CropModel::Field;

    explicit SidebarControls(CropModel* model, QObject* parent = nullptr);

    CropModel* model() const { return m_model; }

    /// Runs `refresh` whenever one of `fields` changes, and once at `refreshAll`.
    void follow(std::initializer_list<Field> fields, std::function<void()> refresh);
    /// Runs what follows `field`, muted.
    void refresh(Field field);
    /// Runs everything, muted.
    void refreshAll();
    /// True while controls are being moved to the model: their signals then write nothing.
    bool following() const { return m_following; }

    // --- factories; each control is named after the setting it shows ---

    /// What assistive technology calls the control of `field`: the settings table's meaning of it,
    /// capitalised ("Padding on every side").
    static QString spokenName(Field field);
    /// A continuous slider over the setting's range in the settings table, named for screen readers.
    QSlider* slider(QWidget* parent, Field field);
    /// Symbol, slider, symbol.
    QWidget* sliderRow(QWidget* parent, const QString& leftSymbol, const QString& rightSymbol, Field field);
    /// A checkbox with its label and tooltip, bound to a switch.
    QCheckBox* checkbox(QWidget* parent, const QString& text, const QString& tip, Field field);
    /// A read-out of `fields`, right-aligned, `width` wide.
    QLabel* readout(QWidget* parent, int width, std::initializer_list<Field> fields,
                    std::function<QString()> text);
    /// A row of exclusive buttons; `get` gives the checked one, `set` takes a click.
    QWidget* segmented(QWidget* parent, const QStringList& labels, Field field, std::function<int()> get,
                       std::function<void(int)> set);
    /// Shows `widget` while `condition` holds, looked at when one of `fields` changes.
    void showWhile(QWidget* widget, std::initializer_list<Field> fields, std::function<bool()> condition);
    /// A section: title with its symbol and a switch; `body` exists only while the switch is on.
    QWidget* section(QWidget* parent, const QString& title, const QString& icon, Field switchField,
                     QWidget* body, int transitionMs);

    /// A column with no margins and `spacing` between its children.
    static std::pair<QWidget*, QVBoxLayout*> column(QWidget* parent, int spacing = 8);
    /// A small symbol, dimmed.
    static QLabel* tertiarySymbol(const QString& name, QWidget* parent);

    /// A status line: a small indeterminate progress indicator or a warning symbol, then the text.
    struct StatusLine {
        QWidget* row;
        QWidget* spinner;
        QWidget* warning;
        QLabel* text;
    };
    static StatusLine statusLine(QWidget* parent);

private:
    QPointer<CropModel> m_model;
    std::map<Field, std::vector<std::function<void()>>> m_byField;
    std::vector<std::function<void()>> m_all;
    bool m_following = false;
};

} // namespace cutlark
