#include "model/CropModel.h"
#include "ui/PlainWindow.h"

#include <QApplication>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Cutlark"));
    QApplication::setOrganizationName(QStringLiteral("Cutlark"));

    cutlark::CropModel model;
    cutlark::PlainWindow window(&model);
    window.show();
    const QStringList files = QApplication::arguments().mid(1);
    if (!files.isEmpty()) model.open(files);
    return app.exec();
}
