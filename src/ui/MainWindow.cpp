#include "ui/MainWindow.h"

#include "model/CropModel.h"
#include "ui/ContentView.h"
#include "ui/FileOpenInbox.h"

#include "engines/SubjectNetwork.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QMenuBar>
#include <QUrl>

namespace cutlark {

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent), m_content(new ContentView(this)), m_panels(this) {
    setWindowTitle(tr("Cutlark"));
    setCentralWidget(m_content);
    resize(720, 540);

    QMenu* file = menuBar()->addMenu(tr("&File"));
    // The menu bar belongs to the window, not to the view that owns the model; the files go by way
    // of the inbox, as files handed over by a second start do.
    file->addAction(tr("Open…"), QKeySequence::Open, this, [this] {
        if (auto chosen = m_panels.openImages(true)) FileOpenInbox::instance().deliver(*chosen);
    });
    file->addSeparator();
    // Ctrl+S saves, or exports the trace while Vectorize is on: only one of the two is ever enabled.
    const auto command = [this](QMenu* menu, const QString& text, const QKeySequence& key,
                                void (CropModel::*action)()) {
        QAction* a = menu->addAction(text, key, this, [this, action] { m_content->perform(action); });
        m_commands << a;
        return a;
    };
    command(file, tr("Save Over Original"), QKeySequence::Save, &CropModel::saveOverOriginal);
    command(file, tr("Save as New…"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S),
            &CropModel::saveAsNewFile);
    command(file, tr("Export SVG…"), QKeySequence::Save, &CropModel::exportSVG);
    file->addSeparator();
    command(file, tr("Split into Files…"), QKeySequence(), &CropModel::splitCollage);
    file->addSeparator();
    command(file, tr("Export Settings…"), QKeySequence(), &CropModel::exportSettingsAs);
    command(file, tr("Import Settings…"), QKeySequence(), &CropModel::importSettingsFrom);
    file->addSeparator();
    file->addAction(tr("Quit"), QKeySequence::Quit, qApp, &QApplication::quit);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    command(edit, tr("Copy SVG"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_C), &CropModel::copySVG);
    edit->addSeparator();
    QAction* remove = edit->addAction(tr("Remove from Queue"), QKeySequence::Delete, this, [this] {
        CropModel& model = m_content->model();
        if (model.activeID()) model.remove(*model.activeID());
    });
    m_commands << remove;
    QAction* refine = edit->addAction(tr("Refine Cutout…"), QKeySequence(Qt::CTRL | Qt::Key_R), this,
                                      [this] { m_content->openRefineSheet(); });
    m_commands << refine;
    connect(&m_content->model(), &CropModel::changed, this, &MainWindow::updateCommands);
    updateCommands();
    addNetworkMenu();
    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("Cutlark Help"), this, [] {
        // The guide installed with the application, or the one of the source tree beside a build.
        const QString bin = QCoreApplication::applicationDirPath();
        for (const QString& candidate : {bin + QStringLiteral("/../share/doc/cutlark/guide.html"),
                                         bin + QStringLiteral("/../docs/guide.html")}) {
            if (QFileInfo::exists(candidate)) {
                QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(candidate).absoluteFilePath()));
                return;
            }
        }
    });
}

void MainWindow::addNetworkMenu() {
    // Read again each time it opens: a network copied into the folder shows up without a restart.
    m_networkMenu = menuBar()->addMenu(tr("Subject &network"));
    connect(m_networkMenu, &QMenu::aboutToShow, this, &MainWindow::fillNetworkMenu);
    fillNetworkMenu();
}

void MainWindow::fillNetworkMenu() {
    m_networkMenu->clear();
    auto* group = new QActionGroup(m_networkMenu);
    CropModel& model = m_content->model();
    const QString chosen = model.subjectNetwork().path;
    const auto add = [&](const QString& text, const QString& path) {
        QAction* a = m_networkMenu->addAction(text);
        a->setCheckable(true);
        a->setChecked(path == chosen);
        a->setData(path);
        group->addAction(a);
        connect(a, &QAction::triggered, this, [this, path] {
            CropModel& m = m_content->model();
            if (path.isEmpty())
                m.setSubjectNetwork(SubjectNetwork{});
            else
                m.chooseSubjectNetwork(path);
        });
    };
    add(tr("IS-Net (installed)"), QString());
    m_networkMenu->addSeparator();
    const QStringList found = SubjectNetwork::userNetworks();
    for (const QString& path : found)
        add(SubjectNetwork{path}.displayName(), path);
    // A network chosen before and gone from the folder since stays listed while it is in use.
    if (!chosen.isEmpty() && !found.contains(chosen)) add(SubjectNetwork{chosen}.displayName(), chosen);
    if (found.isEmpty()) {
        QAction* none = m_networkMenu->addAction(
            tr("More networks: put .onnx files into %1").arg(SubjectNetwork::userFolder()));
        none->setEnabled(false);
    }
}

QAction* MainWindow::command(const QString& text) const {
    for (QAction* a : m_commands)
        if (QString(a->text()).remove(QLatin1Char('&')) == text) return a;
    return nullptr;
}

void MainWindow::updateCommands() {
    const CropModel& model = m_content->model();
    const bool hasItem = model.activeID().has_value();
    const bool vector = model.vectorizeEnabled();
    command(tr("Save Over Original"))->setEnabled(hasItem && !vector);
    command(tr("Save as New…"))->setEnabled(hasItem && !vector);
    command(tr("Export SVG…"))->setEnabled(vector && model.hasVectorOutput());
    command(tr("Copy SVG"))->setEnabled(vector && model.hasVectorOutput());
    command(tr("Split into Files…"))->setEnabled(model.collageRects().size() >= 2);
    command(tr("Remove from Queue"))->setEnabled(hasItem);
    command(tr("Export Settings…"))->setEnabled(hasItem);
    command(tr("Import Settings…"))->setEnabled(hasItem);
    command(tr("Refine Cutout…"))->setEnabled(model.wantsVision() && !model.activeCutout().isNull());
}

} // namespace cutlark
