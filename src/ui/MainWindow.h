#pragma once

#include "ui/QtPanels.h"

#include <QMainWindow>

namespace cutlark {

class ContentView;

/// The application's one window: the content view and the menus.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ContentView* content() const { return m_content; }

private:
    ContentView* m_content;
    QtPanels m_panels;
};

} // namespace cutlark
