#pragma once

// For test programs that drive a whole client through its dialogs.

#include <SoftwareUpdateAvailableDialog.h>
#include <SoftwareUpdateClient.h>
#include <SoftwareUpdateDialog.h>
#include <TestSupport.h>

namespace suc::test {

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
