#include "SoftwareUpdateDialog.h"

#include "ui_SoftwareUpdateDialogGui.h"

#include <QApplication>

namespace qv {

SoftwareUpdateDialog::SoftwareUpdateDialog(QWidget *parent, Qt::WindowFlags flags)
    : QDialog(parent, flags), ui(new Ui_SoftwareUpdateDialogGui)
{
    ui->setupUi(this);
    // The line shows server answers (an error text names the URL, which a redirect chose): text,
    // never markup that could load an image.
    ui->updateNotificationLabel->setTextFormat(Qt::PlainText);
    if (QApplication::keyboardModifiers() == Qt::NoModifier) {
        ui->checkForBetaCheckBox->hide();
        ui->updateServerLabel->hide();
        ui->updateServerLineEdit->hide();
    }
    layout()->setSizeConstraint(QLayout::SetFixedSize);
    ui->progressBar->hide();
    connect(ui->updatePushButton, &QPushButton::clicked, this,
            &SoftwareUpdateDialog::checkForUpdate);
    connect(ui->buttonBox, &QDialogButtonBox::clicked, this,
            &SoftwareUpdateDialog::standardButtonClicked);
}

SoftwareUpdateDialog::~SoftwareUpdateDialog()
{
    delete ui;
}

void SoftwareUpdateDialog::setNotificationText(const QString &text)
{
    ui->updateNotificationLabel->setText(text);
}

void SoftwareUpdateDialog::setDialogSettings(const SoftwareUpdateDialogSettings &settings)
{
    ui->updateCheckBox->setChecked(settings.doUpdateCheck);
    ui->checkForBetaCheckBox->setChecked(settings.checkForBeta);
    ui->updateComboBox->setCurrentIndex(settings.updateInterval);
    ui->updateServerLineEdit->setText(settings.serverURL);
    ui->currentVersionLabel->setVisible(!settings.currentVersion.isNull());
    if (!settings.currentVersion.isNull())
        ui->currentVersionNumberLabel->setText(settings.currentVersion);
    ui->lastCheckLabel->setVisible(!settings.lastCheck.isNull());
    if (!settings.lastCheck.isNull())
        ui->lastCheckDateLabel->setText(settings.lastCheck);
}

SoftwareUpdateDialogSettings SoftwareUpdateDialog::getDialogSettings() const
{
    SoftwareUpdateDialogSettings s;
    s.doUpdateCheck = ui->updateCheckBox->isChecked();
    s.checkForBeta = ui->checkForBetaCheckBox->isChecked();
    s.updateInterval = ui->updateComboBox->currentIndex();
    s.serverURL = ui->updateServerLineEdit->text();
    s.currentVersion = ui->currentVersionNumberLabel->text();
    s.lastCheck = ui->lastCheckDateLabel->text();
    return s;
}

void SoftwareUpdateDialog::enableProgress()
{
    ui->progressBar->show();
    ui->progressBar->setEnabled(true);
    ui->updatePushButton->setEnabled(false);
}

void SoftwareUpdateDialog::disbaleProgress()
{
    ui->progressBar->hide();
    ui->progressBar->setEnabled(false);
    ui->updatePushButton->setEnabled(true);
}

void SoftwareUpdateDialog::emitApplySettings()
{
    Q_EMIT applySettings(getDialogSettings());
}

void SoftwareUpdateDialog::standardButtonClicked(QAbstractButton *button)
{
    const QDialogButtonBox::ButtonRole role = ui->buttonBox->buttonRole(button);
    if (role == QDialogButtonBox::AcceptRole || role == QDialogButtonBox::ApplyRole)
        emitApplySettings();
}

} // namespace qv
