#include "ui/sidebar/SidebarControls.h"

#include "ui/Transition.h"
#include "ui/Widgets.h"

#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMetaEnum>
#include <QProgressBar>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>
#include <optional>

namespace cutlark {

namespace {

constexpr int kSliderSteps = 10000; // fine enough to pass every intermediate value along

// The getter and setter of a setting of type T, found by its field: the table says which exist.
template <class T> struct Binding {
    const T& (CropModel::*get)() const;
    void (CropModel::*set)(const T&);
};
template <class T, class U>
std::optional<Binding<T>> bindingOf(const U& (CropModel::*get)() const, void (CropModel::*set)(const U&)) {
    if constexpr (std::is_same_v<T, U>)
        return Binding<T>{get, set};
    else
        return std::nullopt;
}
template <class T> Binding<T> binding(CropModel::Field field) {
#define CUTLARK_BINDING(Type, name, Name, ...)                                                               \
    if (field == CropModel::Field::name) {                                                                   \
        if (auto b = bindingOf<T, Type>(&CropModel::name, &CropModel::set##Name)) return *b;                 \
    }
    CUTLARK_SETTINGS(CUTLARK_BINDING)
#undef CUTLARK_BINDING
    qFatal("no setting of this type for the field");
}

QString settingName(CropModel::Field field) {
    return QString::fromLatin1(QMetaEnum::fromType<CropModel::Field>().valueToKey(int(field)));
}

} // namespace

SidebarControls::SidebarControls(CropModel* model, QObject* parent) : QObject(parent), m_model(model) {}

void SidebarControls::follow(std::initializer_list<Field> fields, std::function<void()> refresh) {
    for (Field f : fields)
        m_byField[f].push_back(refresh);
    m_all.push_back(std::move(refresh));
}

void SidebarControls::refresh(Field field) {
    const auto it = m_byField.find(field);
    if (!m_model || m_following || it == m_byField.end()) return;
    m_following = true;
    for (const auto& apply : it->second)
        apply();
    m_following = false;
}

void SidebarControls::refreshAll() {
    if (!m_model || m_following) return;
    m_following = true;
    for (const auto& apply : m_all)
        apply();
    m_following = false;
}

QString SidebarControls::spokenName(Field field) {
    const SettingInfo* row = Settings::info(settingName(field));
    QString meaning = row ? QString::fromUtf8(row->meaning) : settingName(field);
    if (!meaning.isEmpty()) meaning[0] = meaning[0].toUpper();
    return meaning;
}

QSlider* SidebarControls::slider(QWidget* parent, Field field) {
    const SettingInfo* row = Settings::info(settingName(field));
    Q_ASSERT(row && row->isNumber());
    const double lo = row->minimum, hi = row->maximum;
    const Binding<double> b = binding<double>(field);
    auto* s = new QSlider(Qt::Horizontal, parent);
    s->setObjectName(settingName(field));
    s->setAccessibleName(spokenName(field));
    s->setRange(0, kSliderSteps);
    // Held, the slider asks for drafts: each step rebuilds the picture at the view's size, and the
    // release builds it in full.
    connect(s, &QSlider::sliderPressed, this, [this] {
        if (m_model) m_model->setDraft(true);
    });
    connect(s, &QSlider::sliderReleased, this, [this] {
        if (m_model) m_model->setDraft(false);
    });
    connect(s, &QSlider::valueChanged, this, [this, s, lo, hi, b](int v) {
        if (!m_following && m_model) (m_model.data()->*b.set)(lo + (hi - lo) * v / double(s->maximum()));
    });
    follow({field}, [this, s, lo, hi, b] {
        const double v = (m_model.data()->*b.get)();
        s->setValue(int(std::round(std::clamp((v - lo) / (hi - lo), 0.0, 1.0) * s->maximum())));
    });
    return s;
}

QWidget* SidebarControls::sliderRow(QWidget* parent, const QString& leftSymbol, const QString& rightSymbol,
                                    Field field) {
    auto* w = new QWidget(parent);
    auto* row = new QHBoxLayout(w);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(8);
    row->addWidget(tertiarySymbol(leftSymbol, w));
    row->addWidget(slider(w, field), 1);
    row->addWidget(tertiarySymbol(rightSymbol, w));
    return w;
}

QCheckBox* SidebarControls::checkbox(QWidget* parent, const QString& text, const QString& tip, Field field) {
    const Binding<bool> b = binding<bool>(field);
    auto* c = new ElidedCheckBox(text, parent);
    c->setObjectName(settingName(field));
    c->setToolTip(tip);
    connect(c, &QCheckBox::toggled, this, [this, b](bool on) {
        if (!m_following && m_model) (m_model.data()->*b.set)(on);
    });
    follow({field}, [this, c, b] { c->setChecked((m_model.data()->*b.get)()); });
    return c;
}

QLabel* SidebarControls::readout(QWidget* parent, int width, std::initializer_list<Field> fields,
                                 std::function<QString()> text) {
    auto* l = captionLabel(QString(), parent);
    l->setFixedWidth(int(width * fontScale(QApplication::font()))); // "100 %" whole at any font
    l->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    follow(fields, [l, text] { l->setText(text()); });
    return l;
}

QWidget* SidebarControls::segmented(QWidget* parent, const QStringList& labels, Field field,
                                    std::function<int()> get, std::function<void(int)> set) {
    auto* w = new QWidget(parent);
    w->setObjectName(settingName(field));
    auto* row = new QHBoxLayout(w);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(0);
    // The chosen segment is filled with the palette's highlight, so it reads as chosen in a light
    // scheme and a dark one alike.
    w->setStyleSheet(QStringLiteral(
        "QToolButton { border: 1px solid palette(mid); border-left-width: 0; padding: 3px 6px;"
        " background: palette(button); color: palette(button-text); }"
        "QToolButton#first { border-left-width: 1px; border-top-left-radius: 5px; border-bottom-left-radius: "
        "5px; }"
        "QToolButton#last { border-top-right-radius: 5px; border-bottom-right-radius: 5px; }"
        "QToolButton:checked { background: palette(highlight); color: palette(highlighted-text);"
        " border-color: palette(highlight); }"
        "QToolButton:focus { outline: none; }"));
    auto* group = new QButtonGroup(w);
    for (int i = 0; i < labels.size(); ++i) {
        auto* b = new QToolButton(w);
        if (i == 0) b->setObjectName(QStringLiteral("first"));
        if (i == labels.size() - 1) b->setObjectName(QStringLiteral("last"));
        b->setText(labels[i]);
        b->setCheckable(true);
        b->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        group->addButton(b, i);
        row->addWidget(b);
    }
    connect(group, &QButtonGroup::idClicked, this, [this, set](int id) {
        if (!m_following) set(id);
    });
    follow({field}, [group, get] {
        if (auto* b = group->button(get())) b->setChecked(true);
    });
    return w;
}

void SidebarControls::showWhile(QWidget* widget, std::initializer_list<Field> fields,
                                std::function<bool()> condition) {
    follow(fields, [widget, condition] { widget->setVisible(condition()); });
}

QWidget* SidebarControls::section(QWidget* parent, const QString& title, const QString& icon,
                                  Field switchField, QWidget* body, int transitionMs) {
    const Binding<bool> b = binding<bool>(switchField);
    auto* box = new QWidget(parent);
    auto* column = new QVBoxLayout(box);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(8);
    auto* head = new QWidget(box);
    auto* row = new QHBoxLayout(head);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(8);
    row->addWidget(symbolLabel(icon, title, head), 1);
    auto* toggle = new ToggleSwitch(head);
    toggle->setObjectName(settingName(switchField));
    toggle->setAccessibleName(title);
    toggle->setToolTip(title);
    row->addWidget(toggle);
    column->addWidget(head);
    column->addWidget(body);
    // The body was made before its switch, so Tab would reach its controls first: they are chained
    // again, in their order, after the switch.
    QList<QWidget*> controls;
    for (QWidget* w = body->nextInFocusChain(); w && w != body && w != toggle; w = w->nextInFocusChain())
        if (body->isAncestorOf(w) && (w->focusPolicy() & Qt::TabFocus)) controls << w;
    QWidget* before = toggle;
    for (QWidget* control : controls) {
        QWidget::setTabOrder(before, control);
        before = control;
    }
    connect(toggle, &ToggleSwitch::toggled, this, [this, b](bool on) {
        if (!m_following && m_model) (m_model.data()->*b.set)(on);
    });
    follow({switchField}, [this, toggle, body, b, transitionMs] {
        const bool on = (m_model.data()->*b.get)();
        toggle->setChecked(on);
        setShown(body, on, transitionMs, Qt::Vertical); // the controls go with the switch; the values stay
    });
    return box;
}

std::pair<QWidget*, QVBoxLayout*> SidebarControls::column(QWidget* parent, int spacing) {
    auto* w = new QWidget(parent);
    auto* l = new QVBoxLayout(w);
    l->setContentsMargins(0, 0, 0, 0);
    l->setSpacing(spacing);
    return {w, l};
}

QLabel* SidebarControls::tertiarySymbol(const QString& name, QWidget* parent) {
    auto* l = new QLabel(parent);
    l->setPixmap(symbol(name).pixmap(14, 14));
    l->setEnabled(false);
    return l;
}

SidebarControls::StatusLine SidebarControls::statusLine(QWidget* parent) {
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

} // namespace cutlark
