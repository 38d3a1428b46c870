#pragma once

// For test programs that drive a whole client through its dialogs.

#include <SoftwareUpdateAvailableDialog.h>
#include <SoftwareUpdateClient.h>
#include <SoftwareUpdateDialog.h>
#include <TestSupport.h>

namespace suc::test {

/// The clients' settings store: "Viewer" of this program's organization.
inline QSettings clientStore()
{
    return QSettings(QSettings::IniFormat, QSettings::UserScope,
                     QCoreApplication::organizationName(), "Viewer");
}

/// Gives this test program a settings store of its own, named after `program` and its process
/// (another run of it may be going on beside it), in Qt's test locations.
inline void useOwnClientStore(const QString &program)
{
    QStandardPaths::setTestModeEnabled(true);
    QCoreApplication::setOrganizationName(
        QStringLiteral("SucTest-%1-%2").arg(program).arg(QCoreApplication::applicationPid()));
    QCoreApplication::setApplicationName("Viewer");
    qv::SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;
}

/// Removes the store of useOwnClientStore() and its folder.
inline void removeOwnClientStore()
{
    const QString file = clientStore().fileName();
    QFile::remove(file);
    QDir().rmdir(QFileInfo(file).path());
}

/// The contents of every downloaded `file`: in the client's download folders in the temporary
/// folder.
inline QList<QByteArray> downloadedFiles(const QString &file)
{
    QList<QByteArray> found;
    for (const QString &dir : QDir::temp().entryList({"softwareupdate-*"}, QDir::Dirs)) {
        QFile f(QDir::temp().filePath(dir + "/" + file));
        if (f.open(QIODevice::ReadOnly))
            found << f.readAll();
    }
    return found;
}

/// Runs a check from the client's settings dialog, as a user does (the dialog is opened unless
/// it is open): the rows of the package list that opens (every cell of each, with `allCells`), or
/// else the dialog's notification line.
inline QStringList checkFromDialog(qv::SoftwareUpdateClient *client, bool allCells = false)
{
    if (!openDialog<qv::SoftwareUpdateDialog>())
        client->queryForUpdate({}, false);
    auto *dialog = openDialog<qv::SoftwareUpdateDialog>();
    auto *line = dialog->findChild<QLabel *>("updateNotificationLabel");
    line->clear();
    Q_EMIT dialog->checkForUpdate();
    const auto list = [] { return openDialog<qv::SoftwareUpdateAvailableDialog>(); };
    if (!QTest::qWaitFor([&] { return list() || !line->text().isEmpty(); }, 20000))
        return {"no outcome"};
    if (list())
        return tableRows(list()->findChild<QTableWidget *>("tableWidget"), allCells);
    return {line->text()};
}

} // namespace suc::test
