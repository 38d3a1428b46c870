#pragma once

#include "PackageInfo.h"
#include "SoftwareUpdateSettings.h"
#include "softwareupdateclient_export.h"

#include <QNetworkProxy>
#include <QObject>
#include <QPointer>
#include <QSettings>
#include <QString>

class QNetworkAccessManager;
class QProgressDialog;
class QTimer;
class QWidget;

namespace qv {

class DownloadManager;
class SoftwareUpdateAvailableDialog;
class SoftwareUpdateDialog;

/// The host application's front object for software updates.
///
/// Create one, with the product name, the running version, the update server to use when the
/// settings hold none, and the host window. The constructor reads and writes the settings and
/// starts the hourly check timer when automatic checking is on; it checks nothing itself.
///
/// Settings live at the top level of the host's own store, opened with the host's organization
/// and application names ("Quorvel" and "softwareUpdate" when the host has set none), in the
/// format and scope of the two static members below.
class SOFTWAREUPDATECLIENT_EXPORT SoftwareUpdateClient : public QObject
{
    Q_OBJECT

public:
    /// Format and scope of the settings store; change them before creating the client.
    static QSettings::Format sSoftUpQSettingsFormat;
    static QSettings::Scope sSoftUpQSettingsScope;

    SoftwareUpdateClient(const QString &product, VersionNumber version, const QString &serverURL,
                         QWidget *parent);
    ~SoftwareUpdateClient() override;

    /// Fills `settings` from the store; absent or unreadable values take their defaults.
    void getCurrentSettings(SoftwareUpdateSettings *settings) const;
    /// Writes `settings` to the store. Keys are only ever written, never removed: a null string or
    /// an empty list leaves the stored value as it was.
    void setCurrentSettings(const SoftwareUpdateSettings *settings) const;

    /// "STABLE" unless beta releases are wanted; empty (any status) when they are.
    QString transformReleaseStatus(bool beta) const;
    /// The proxy for every request: the host's global proxy, never the system's.
    QNetworkProxy networkProxy() const;

    Qt::WindowFlags windowFlags() const { return m_windowFlags; }
    QWidget *parentWidget() const { return m_parent; }

public Q_SLOTS:
    /// Starts the hourly background check timer.
    void enableSoftwareUpdate();
    /// Stops the background check timer.
    void disableSoftwareUpdate();
    void setVersionNumber(qv::VersionNumber version);
    void setCurrentCameraVersions(SoftUpCurrentCameraVersions versions);
    /// Replaces the window used as parent of the dialogs.
    void setParent(QWidget *parent);
    /// Replaces the window flags of the dialogs.
    void setWindowFlags(Qt::WindowFlags flags);

private Q_SLOTS:
    void applyDialogSettings(const qv::SoftwareUpdateDialogSettings &dialogSettings);
    void deleteNetworkmanager();

private:
    QSettings *openStore() const;

    QWidget *m_parent = nullptr;
    QNetworkAccessManager *m_networkManager = nullptr;
    QTimer *m_requestTimeoutTimer = nullptr;
    QTimer *m_checkTimer = nullptr;
    PackageInfoList m_packageList;
    SoftUpIndexList m_selectedRows;
    SoftwareUpdateDialog *m_updateDialog = nullptr;
    SoftwareUpdateAvailableDialog *m_updateAvailableDialog = nullptr;
    QProgressDialog *m_progressDialog = nullptr;
    QString m_downloadedFilePath;
    QString m_unpackedFolder;
    Qt::WindowFlags m_windowFlags;
    DownloadManager *m_unpackingManager = nullptr;
    QString m_installString1;
    QString m_installString2;
};

} // namespace qv
