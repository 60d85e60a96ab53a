#pragma once

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
};

} // namespace cutlark
