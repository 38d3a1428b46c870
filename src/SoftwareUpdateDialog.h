#pragma once

#include "SoftwareUpdateSettings.h"
#include "softwareupdateclient_export.h"

#include <QDialog>

class QAbstractButton;
class Ui_SoftwareUpdateDialogGui;

namespace qv {

/// The "Check for Updates" dialog: shows the running version and the last check, offers Check Now
/// with a busy indicator, and edits the update settings. It decides nothing: the client fills it
/// and reacts to its signals.
///
/// The beta and server URL rows are expert settings: they are shown only when a keyboard modifier
/// is held while the dialog is constructed.
class SOFTWAREUPDATECLIENT_EXPORT SoftwareUpdateDialog : public QDialog {
    Q_OBJECT

public:
    SoftwareUpdateDialog(QWidget *parent, Qt::WindowFlags flags);
    ~SoftwareUpdateDialog() override;

    /// The status line under the last-check date.
    void setNotificationText(const QString &text);
    /// Fills the widgets. A null currentVersion or lastCheck hides that row's caption and leaves
    /// its text as it was; an empty one shows the caption with an empty text.
    void setDialogSettings(const qv::SoftwareUpdateDialogSettings &settings);
    /// The widgets' values, hidden ones included.
    qv::SoftwareUpdateDialogSettings getDialogSettings() const;

Q_SIGNALS:
    void checkForUpdate();
    void applySettings(const qv::SoftwareUpdateDialogSettings &settings);
    /// Never emitted by the dialog itself; a connection point for the client.
    void forceUpdateAvailable();

public Q_SLOTS:
    /// Busy: shows the indicator and disables Check Now.
    void enableProgress();
    /// Idle again: hides the indicator and enables Check Now.
    void disbaleProgress();
    void emitApplySettings();
    void standardButtonClicked(QAbstractButton *button);

private:
    Ui_SoftwareUpdateDialogGui *ui;
};

} // namespace qv
