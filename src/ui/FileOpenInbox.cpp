#include "ui/FileOpenInbox.h"

namespace cutlark {

FileOpenInbox& FileOpenInbox::instance() {
    static FileOpenInbox inbox;
    return inbox;
}

void FileOpenInbox::deliver(const QStringList& files) {
    m_pending = files; // a second delivery before the first was taken replaces it
    emit didReceive();
}

QStringList FileOpenInbox::take() {
    QStringList files;
    files.swap(m_pending);
    return files;
}

} // namespace cutlark
