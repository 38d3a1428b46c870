#pragma once

#include "SoftwareUpdateSettings.h"
#include "softwareupdateclient_export.h"

#include <QDialog>
#include <QList>
#include <QStringList>

class Ui_SoftwareUpdateAvailableGui;

namespace qv {

/// Lists the packages an update check found. It holds no package data: rows are texts given by
/// the client, and every user action leaves as a signal carrying table row indexes.
class SOFTWAREUPDATECLIENT_EXPORT SoftwareUpdateAvailableDialog : public QDialog {
    Q_OBJECT

public:
    SoftwareUpdateAvailableDialog(QWidget *parent, Qt::WindowFlags flags);
    ~SoftwareUpdateAvailableDialog() override;

    /// Fills the table, one row per entry (the first row gives the column count), then reports
    /// the (empty) selection through currentItemsChangedSig.
    void setTableEntries(const QList<QStringList> &entries);
    void setTableHeaders(const QStringList &headers);
    /// Hides exactly the listed rows and shows all others.
    void setHiddenEntries(SoftUpIndexList hidden);
    /// Shows rich text below the table; an empty text hides the box.
    void setCommentText(const QString &text);
    bool getShowAllLanguagesState() const;
    void setInstallButtonState(bool enabled);
    void setDownloadButtonState(bool enabled);
    void setRealeaseNotesButtonState(bool enabled);

Q_SIGNALS:
    void downloadUrls(SoftUpIndexList rows);
    void installPackage(int row);
    void currentItemsChangedSig(SoftUpIndexList rows);
    void downloadReleaseNotes(SoftUpIndexList rows);
    void showAllLanguages(bool state);
    void openUpdateSettings();

public Q_SLOTS:
    void downloadPackagePressed();
    void installPackagePressed();
    void currentItemsChanged();
    void releaseNotesPressed();
    /// The rows of the selected cells, each once, in the order the table reports them.
    SoftUpIndexList getCurrentSelectedItems();
    void showAllLanguagesPressed();

private:
    Ui_SoftwareUpdateAvailableGui *ui;
};

} // namespace qv
