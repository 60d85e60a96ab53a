#include "model/Clipboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

namespace cutlark {

namespace {

class SystemClipboard : public Clipboard {
public:
    void putSvg(const QByteArray& svg) override {
        auto* mime = new QMimeData;
        mime->setText(QString::fromUtf8(svg));
        mime->setData(QStringLiteral("image/svg+xml"), svg);
        QGuiApplication::clipboard()->setMimeData(mime); // takes ownership, replaces what was there
    }
};

} // namespace

Clipboard* Clipboard::system() {
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) return nullptr;
    static SystemClipboard clipboard;
    return &clipboard;
}

} // namespace cutlark
