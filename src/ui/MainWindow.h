#pragma once

#include "ui/QtPanels.h"

#include <QAction>
#include <QMainWindow>
#include <QMenu>

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
    void addNetworkMenu();
    void fillNetworkMenu();

    ContentView* m_content;
    QList<QAction*> m_commands;
    QMenu* m_networkMenu = nullptr;
    QtPanels m_panels;
};

} // namespace cutlark
