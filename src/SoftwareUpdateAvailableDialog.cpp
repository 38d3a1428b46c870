#include "SoftwareUpdateAvailableDialog.h"

#include "Logging.h"
#include "ui_SoftwareUpdateAvailableGui.h"

#include <qv/QtHelpers.h>

#include <QAbstractTextDocumentLayout>
#include <QHeaderView>
#include <QTextDocument>
#include <QTextObjectInterface>

namespace qv {

// The comment text names files and links from the catalogue: its document fetches nothing (an
// image could name a FIFO or /dev/zero). Qt's image handler reads files by itself, so images are
// handed to one that draws nothing.
class TextOnlyDocument : public QTextDocument {
public:
    using QTextDocument::QTextDocument;

protected:
    QVariant loadResource(int, const QUrl &) override { return QVariant(); }
};

class NoImages : public QObject, public QTextObjectInterface {
    Q_OBJECT
    Q_INTERFACES(QTextObjectInterface)

public:
    using QObject::QObject;
    QSizeF intrinsicSize(QTextDocument *, int, const QTextFormat &) override { return {}; }
    void drawObject(QPainter *, const QRectF &, QTextDocument *, int, const QTextFormat &) override
    {
    }
};

SoftwareUpdateAvailableDialog::SoftwareUpdateAvailableDialog(QWidget *parent, Qt::WindowFlags flags)
    : QDialog(parent, flags), ui(new Ui_SoftwareUpdateAvailableGui)
{
    ui->setupUi(this);
    connect(ui->downloadPushButton, &QPushButton::clicked, this,
            &SoftwareUpdateAvailableDialog::downloadPackagePressed);
    connect(ui->installPushButton, &QPushButton::clicked, this,
            &SoftwareUpdateAvailableDialog::installPackagePressed);
    connect(ui->releaseNotesPushButton, &QPushButton::clicked, this,
            &SoftwareUpdateAvailableDialog::releaseNotesPressed);
    connect(ui->tableWidget, &QTableWidget::itemSelectionChanged, this,
            &SoftwareUpdateAvailableDialog::currentItemsChanged);
    connect(ui->showAllLanguagesCheckBox, &QCheckBox::clicked, this,
            &SoftwareUpdateAvailableDialog::showAllLanguagesPressed);
    connect(ui->updateSettingsPushButton, &QPushButton::clicked, this,
            &SoftwareUpdateAvailableDialog::openUpdateSettings);
    ui->tableWidget->setEditTriggers(QAbstractItemView::NoEditTriggers);
    ui->installPushButton->setDefault(true);
    adjustSize();
    ui->commentText->hide();
    ui->commentText->setDocument(new TextOnlyDocument(ui->commentText));
    ui->commentText->document()->documentLayout()->registerHandler(QTextFormat::ImageObject,
                                                                   new NoImages(ui->commentText));
    ui->commentText->setOpenExternalLinks(false);
    ui->commentText->setOpenLinks(false);
    connect(ui->commentText, &QTextBrowser::anchorClicked, this, [](const QUrl &url) {
        openWebLink(url, "SoftwareUpdateAvailableDialog::commentText");
    });
}

SoftwareUpdateAvailableDialog::~SoftwareUpdateAvailableDialog()
{
    delete ui;
}

void SoftwareUpdateAvailableDialog::setTableEntries(const QList<QStringList> &entries)
{
    QTableWidget *table = ui->tableWidget;
    table->clear();
    table->setRowCount(0);
    ui->commentText->clear();
    ui->commentText->hide();
    if (entries.isEmpty()) {
        LogQt::write(
            lcUi(), Log::Error,
            QStringLiteral(
                "SoftwareUpdateAvailableDialog::setTableEntries() -> no table entries set!"));
        return;
    }
    table->setRowCount(int(entries.size()));
    table->setColumnCount(int(entries.first().size()));
    table->verticalHeader()->hide();
    table->setSortingEnabled(false);
    for (int row = 0; row < entries.size(); ++row) {
        const QStringList &texts = entries.at(row);
        for (int column = 0; column < texts.size(); ++column)
            table->setItem(row, column, new QTableWidgetItem(texts.at(column)));
    }
    table->resizeColumnsToContents();
    QHeaderView *header = table->horizontalHeader();
    header->setHighlightSections(false);
    header->setSortIndicatorShown(false);
    header->setStretchLastSection(true);
    currentItemsChanged();
}

void SoftwareUpdateAvailableDialog::setTableHeaders(const QStringList &headers)
{
    ui->tableWidget->setHorizontalHeaderLabels(headers);
    ui->tableWidget->resizeColumnsToContents();
}

void SoftwareUpdateAvailableDialog::setHiddenEntries(SoftUpIndexList hidden)
{
    for (int row = 0; row < ui->tableWidget->rowCount(); ++row)
        ui->tableWidget->setRowHidden(row, hidden.contains(row));
}

void SoftwareUpdateAvailableDialog::setCommentText(const QString &text)
{
    if (text.isEmpty()) {
        ui->commentText->hide();
        return;
    }
    ui->commentText->setText(text);
    ui->commentText->show();
}

bool SoftwareUpdateAvailableDialog::getShowAllLanguagesState() const
{
    return ui->showAllLanguagesCheckBox->isChecked();
}

void SoftwareUpdateAvailableDialog::setInstallButtonState(bool enabled)
{
    ui->installPushButton->setEnabled(enabled);
}

void SoftwareUpdateAvailableDialog::setDownloadButtonState(bool enabled)
{
    ui->downloadPushButton->setEnabled(enabled);
}

void SoftwareUpdateAvailableDialog::setRealeaseNotesButtonState(bool enabled)
{
    ui->releaseNotesPushButton->setEnabled(enabled);
}

void SoftwareUpdateAvailableDialog::downloadPackagePressed()
{
    Q_EMIT downloadUrls(getCurrentSelectedItems());
}

void SoftwareUpdateAvailableDialog::installPackagePressed()
{
    Q_EMIT installPackage(ui->tableWidget->currentRow());
}

void SoftwareUpdateAvailableDialog::currentItemsChanged()
{
    Q_EMIT currentItemsChangedSig(getCurrentSelectedItems());
}

void SoftwareUpdateAvailableDialog::releaseNotesPressed()
{
    Q_EMIT downloadReleaseNotes(getCurrentSelectedItems());
}

SoftUpIndexList SoftwareUpdateAvailableDialog::getCurrentSelectedItems()
{
    SoftUpIndexList rows;
    const QList<QTableWidgetItem *> items = ui->tableWidget->selectedItems();
    for (const QTableWidgetItem *item : items) {
        if (!rows.contains(item->row()))
            rows.append(item->row());
    }
    return rows;
}

void SoftwareUpdateAvailableDialog::showAllLanguagesPressed()
{
    Q_EMIT showAllLanguages(ui->showAllLanguagesCheckBox->isChecked());
}

} // namespace qv

#include "SoftwareUpdateAvailableDialog.moc"
