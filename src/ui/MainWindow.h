#pragma once

#include "ui/QtPanels.h"

#include <QAction>
#include <QMainWindow>

namespace cutlark {

class ContentView;

/// The application's one window: the content view and the menus.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ContentView* content() const { return m_content; }

    /// The menu commands, by their text without the ampersand, for tests; null for an unknown one.
    QAction* command(const QString& text) const;

private:
    void updateCommands();

    ContentView* m_content;
    QList<QAction*> m_commands;
    QtPanels m_panels;
};

} // namespace cutlark
