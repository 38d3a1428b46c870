// The update-available flow: the package table, its buttons and comment text, foreign-language
// firmware rows, and release notes and download links opened in the browser.

#include "SoftwareUpdateClient.h"

#include "ClientSupport.h"
#include "PackageTable.h"
#include "SoftwareUpdateAvailableDialog.h"
#include "SoftwareUpdateDialog.h"

#include <qv/QtHelpers.h>

#include <QCoreApplication>
#include <QLocale>

namespace qv {

using client::kCameraKind;
using client::Text;

namespace {

// The name and release as the table shows them: the internal name first (the reverse of
// PackageInfo::displayName), the public release first, and " BETA" for beta releases.
QString nameAndRelease(const PackageInfo &p)
{
    return (!p.name.isEmpty() ? p.name : p.publicName) + QLatin1Char(' ')
        + (!p.publicRelease.isEmpty() ? p.publicRelease : p.release)
        + (p.status == u"BETA" ? QStringLiteral(" BETA") : QString());
}

// Sorted: a set's own order changes from run to run.
QString joined(const QStringSet &set)
{
    QStringList words = set.values();
    words.sort();
    return words.join(QStringLiteral(", "));
}

} // namespace

void SoftwareUpdateClient::showAvailableUpdates()
{
    if (!m_packageList.isEmpty())
        updateAvailable();
}

void SoftwareUpdateClient::updateAvailable()
{
    if (!m_updateAvailableDialog) {
        QWidget *parent = m_updateDialog ? static_cast<QWidget *>(m_updateDialog) : m_parent;
        m_updateAvailableDialog = new SoftwareUpdateAvailableDialog(parent, m_windowFlags);
        SoftwareUpdateAvailableDialog *d = m_updateAvailableDialog;
        connect(d, &SoftwareUpdateAvailableDialog::downloadUrls, this,
                &SoftwareUpdateClient::downloadUrls);
        connect(d, &SoftwareUpdateAvailableDialog::downloadReleaseNotes, this,
                &SoftwareUpdateClient::downloadReleaseNotes);
        connect(d, &SoftwareUpdateAvailableDialog::installPackage, this,
                &SoftwareUpdateClient::installPackage);
        connect(d, &QDialog::accepted, this, &SoftwareUpdateClient::deleteUpdateAvailableDialog);
        connect(d, &QDialog::rejected, this, &SoftwareUpdateClient::deleteUpdateAvailableDialog);
        connect(d, &SoftwareUpdateAvailableDialog::currentItemsChangedSig, this,
                &SoftwareUpdateClient::manageUpdateAvailableDialog);
        connect(d, &SoftwareUpdateAvailableDialog::showAllLanguages, this,
                &SoftwareUpdateClient::showHideForeignLanguageItems);
        connect(d, &QObject::destroyed, this, &SoftwareUpdateClient::setUpdateAvailableNull);
        connect(d, &SoftwareUpdateAvailableDialog::openUpdateSettings, this,
                &SoftwareUpdateClient::openSettingsDialogFromUpdateAvailableDialog);
    }
    m_updateAvailableDialog->setTableEntries(PackageTable::rows(m_packageList));
    m_updateAvailableDialog->setTableHeaders({Text::tr("Name"), Text::tr("File Size"),
                                              Text::tr("File Type"), Text::tr("Languages"),
                                              Text::tr("Platforms")});
    m_updateAvailableDialog->show();
    m_updateAvailableDialog->activateWindow();
}

void SoftwareUpdateClient::manageUpdateAvailableDialog(SoftUpIndexList indexList)
{
    SoftwareUpdateAvailableDialog *d = m_updateAvailableDialog;
    if (!d)
        return;
    d->setInstallButtonState(false);
    d->setRealeaseNotesButtonState(false);
    showHideForeignLanguageItems(d->getShowAllLanguagesState());
    if (indexList.isEmpty()) {
        d->setCommentText(QString());
        d->setInstallButtonState(false);
        d->setDownloadButtonState(false);
        return;
    }
    if (indexList.size() > 1) {
        d->setDownloadButtonState(true);
        d->setCommentText(QString());
        return;
    }
    if (indexList.first() < 0 || indexList.first() >= m_packageList.size())
        return;
    SoftwareUpdateSettings settings;
    getCurrentSettings(&settings);
    const PackageInfo &p = m_packageList.at(indexList.first());
    d->setInstallButtonState(
        !m_installRunning
        && settings.installablePackageTypes.contains(p.suffix, Qt::CaseSensitive));
    d->setRealeaseNotesButtonState(!p.releaseNotes.value(QStringLiteral("en")).isEmpty());
    const QString published = p.releaseDate.isNull()
        ? QString()
        : Text::tr("Published on %1")
              .arg(QLocale::system().toString(p.releaseDate.date(), QLocale::LongFormat));
    // Every value from the catalogue is text, never markup.
    const QString link = p.url.toString().toHtmlEscaped();
    d->setCommentText(QStringLiteral("<b>") + nameAndRelease(p).toHtmlEscaped()
                      + QStringLiteral(", ") + p.type.toHtmlEscaped() + QStringLiteral("</b><br />")
                      + published.toHtmlEscaped() + QStringLiteral("<a href=\"") + link
                      + QStringLiteral("\">") + link + QStringLiteral("</a><br />"));
    d->setDownloadButtonState(true);
}

QList<int> SoftwareUpdateClient::determineForeignLanguageRows(PackageInfoList list)
{
    return PackageTable::foreignLanguageRows(
        list, QLocale::system().name().section(QLatin1Char('_'), 0, 0));
}

QList<QStringList> PackageTable::rows(const PackageInfoList &packages)
{
    QList<QStringList> rows;
    for (const PackageInfo &p : packages) {
        const QString size = QString::number(double(quint64(p.fileSize)) / 1048576.0, 'f', 1)
            + QStringLiteral(" MB");
        const QString languages
            = p.type == kCameraKind ? joined(p.languages) : Text::tr("Multilingual");
        rows << QStringList {nameAndRelease(p), size, p.suffix, languages, joined(p.platforms)};
    }
    return rows;
}

QList<int> PackageTable::foreignLanguageRows(const PackageInfoList &list, const QString &own)
{
    QList<int> hidden;
    bool matched = false;
    for (int i = 0; i < list.size(); ++i) {
        const PackageInfo &p = list.at(i);
        if (p.type != kCameraKind)
            continue;
        // English speakers are offered the German-and-English firmware.
        const bool shown = own == u"en" ? p.languages.contains(QStringLiteral("de"))
                && p.languages.contains(QStringLiteral("en"))
                                        : p.languages.contains(own);
        if (shown)
            matched = true;
        else
            hidden << i;
    }
    return matched ? hidden : QList<int>();
}

void SoftwareUpdateClient::showHideForeignLanguageItems(bool state)
{
    if (!m_updateAvailableDialog)
        return;
    m_updateAvailableDialog->setHiddenEntries(state ? SoftUpIndexList()
                                                    : determineForeignLanguageRows(m_packageList));
}

void SoftwareUpdateClient::downloadReleaseNotes(SoftUpIndexList itemIndexes)
{
    if (itemIndexes.isEmpty() || itemIndexes.first() < 0
        || itemIndexes.first() >= m_packageList.size())
        return;
    openWebLink(m_packageList.at(itemIndexes.first()).releaseNotes.value(QStringLiteral("en")),
                "SoftwareUpdateClient::downloadReleaseNotes()");
}

void SoftwareUpdateClient::downloadUrls(SoftUpIndexList itemIndexes)
{
    for (const int row : std::as_const(itemIndexes)) {
        if (row >= 0 && row < m_packageList.size())
            openWebLink(m_packageList.at(row).url, "SoftwareUpdateClient::downloadUrls()");
    }
}

void SoftwareUpdateClient::deleteUpdateAvailableDialog()
{
    if (!m_updateAvailableDialog)
        return;
    m_updateAvailableDialog->hide();
    m_updateAvailableDialog->deleteLater();
}

void SoftwareUpdateClient::setUpdateAvailableNull(QObject *)
{
    m_updateAvailableDialog = nullptr;
}

} // namespace qv
