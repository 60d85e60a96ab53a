// Settings to and from a preset file: the look built in the window, for the command line and back.
#include "model/CropModel.h"

#include "model/Panels.h"
#include "model/SettingsFile.h"

#include <QFileInfo>

namespace cutlark {

bool CropModel::exportSettings(const QString& path) {
    const Settings settings = snapshotCurrentSettings();
    if (auto error = SettingsFile::write(settings, path)) {
        setErrorMessage(*error);
        return false;
    }
    QString notice = QStringLiteral("Settings exported to “%1”.").arg(QFileInfo(path).fileName());
    // A picture pasted or dropped has no file for the preset to name.
    if (settings.backgroundEnabled && settings.backgroundKind == BackgroundKind::image &&
        !settings.backgroundImage.isNull() && settings.backgroundImageURL.isEmpty())
        notice += QStringLiteral(" The background picture has no file, so the settings leave it out.");
    setNoticeMessage(notice);
    return true;
}

bool CropModel::importSettings(const QString& path) {
    QString why;
    const std::optional<Settings> settings = SettingsFile::read(path, &why);
    if (!settings) {
        setErrorMessage(why);
        return false;
    }
    // Each setting through its own write, so every hook runs; synced, the look is every item's.
    applySettings(*settings);
    // While a set is applied, the resize's sizes are seeded and linked from the picture being left;
    // once the preset's own picture is built they are written again as the preset has them.
    setResizeLockAspect(false);
    setResizeWidth(settings->resizeWidth);
    setResizeHeight(settings->resizeHeight);
    setResizeLockAspect(settings->resizeLockAspect);
    setNoticeMessage(QStringLiteral("Settings imported from “%1”.").arg(QFileInfo(path).fileName()));
    return true;
}

void CropModel::exportSettingsAs() {
    if (!m_panels || !active()) return;
    const QString folder = QFileInfo(active()->path).absolutePath();
    if (auto path = m_panels->saveFile(folder, QStringLiteral("cutlark-settings.json"),
                                       QStringLiteral("application/json")))
        exportSettings(*path);
}

void CropModel::importSettingsFrom() {
    if (!m_panels || !active()) return;
    if (auto path = m_panels->openFile(QStringLiteral("application/json"))) importSettings(*path);
}

} // namespace cutlark
