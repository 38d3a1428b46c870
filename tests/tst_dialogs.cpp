#include <SoftwareUpdateAvailableDialog.h>
#include <SoftwareUpdateDialog.h>
#include <TestSupport.h>
#include <qv/LogQt.h>
#include <qv/QtHelpers.h>

using namespace qv;
using namespace suc::test;

Q_DECLARE_METATYPE(qv::SoftwareUpdateDialogSettings)

namespace {

template<typename T> T *child(QWidget *w, const char *name)
{
    T *c = w->findChild<T *>(QString::fromLatin1(name));
    if (!c)
        qFatal("no %s", name);
    return c;
}

QList<QStringList> rows(int n)
{
    QList<QStringList> out;
    for (int i = 0; i < n; ++i)
        out << QStringList {QString("Viewer 2.%1").arg(i), "40.0 MB", "zip", "Multilingual",
                            "linux"};
    return out;
}

} // namespace

class TestDialogs : public QObject {
    Q_OBJECT
    QList<QUrl> m_opened; ///< links handed to the desktop

public Q_SLOTS:
    void recordOpened(const QUrl &url) { m_opened << url; }

private:
    QWidget m_host;

private Q_SLOTS:
    void initTestCase()
    {
        m_host.resize(200, 100);
        m_host.show();
        QVERIFY(QTest::qWaitForWindowExposed(&m_host));
    }

    // Each row holds a key and its modifier while the dialog opens.
    void expertRowsNeedAModifier_data() { addRows("dialogs-expert-rows"); }
    void expertRowsNeedAModifier()
    {
        QFETCH(int, key);
        QFETCH(bool, expert);
        // Held the way the window system reports it, so that QApplication::keyboardModifiers()
        // sees it while the dialog is made.
        QWindow *window = m_host.windowHandle();
        if (key != Qt::Key_unknown)
            QTest::keyPress(window, Qt::Key(key), Qt::KeyboardModifier(row<int>("modifier")));
        QScopedPointer<SoftwareUpdateDialog> dialog(
            new SoftwareUpdateDialog(&m_host, dialogFlags(false)));
        if (key != Qt::Key_unknown)
            QTest::keyRelease(window, Qt::Key(key), Qt::NoModifier);
        dialog->show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.data()));
        QCOMPARE(child<QCheckBox>(dialog.data(), "checkForBetaCheckBox")->isVisible(), expert);
        QCOMPARE(child<QLabel>(dialog.data(), "updateServerLabel")->isVisible(), expert);
        QCOMPARE(child<QLineEdit>(dialog.data(), "updateServerLineEdit")->isVisible(), expert);
        QVERIFY(!child<QProgressBar>(dialog.data(), "progressBar")->isVisible());
        QCOMPARE(dialog->layout()->sizeConstraint(), QLayout::SetFixedSize);
    }

    void settingsRoundTrip_data() { addRows("dialogs-settings-round-trip"); }
    void settingsRoundTrip()
    {
        QFETCH(QString, lastCheck);
        SoftwareUpdateDialog dialog(nullptr, {});
        dialog.setDialogSettings({false, false, 0, {}, "old", "old date"}); // replaced whole
        const SoftwareUpdateDialogSettings s {
            true, true, 3, "http://typed.test/list.xml", row<QString>("version"), lastCheck};
        dialog.setDialogSettings(s);
        dialog.show();
        QTEST(child<QLabel>(&dialog, "currentVersionLabel")->isVisible(), "versionCaption");
        QTEST(child<QLabel>(&dialog, "lastCheckLabel")->isVisible(), "lastCheckCaption");
        const SoftwareUpdateDialogSettings back = dialog.getDialogSettings();
        QCOMPARE(back.doUpdateCheck, true);
        QCOMPARE(back.checkForBeta, true); // hidden, passed through
        QCOMPARE(back.updateInterval, 3);
        QCOMPARE(back.serverURL, s.serverURL);
        QTEST(back.currentVersion, "shownVersion");
        QTEST(back.lastCheck, "shownLastCheck");
        QCOMPARE(child<QComboBox>(&dialog, "updateComboBox")->currentText(), QString("Monthly"));
    }

    // Only Ok applies; Check Now only asks, and the dialog stays.
    void closingEmitsApplyOnlyForOk_data() { addRows("dialogs-closing-emits-apply-only-for-ok"); }
    void closingEmitsApplyOnlyForOk()
    {
        QFETCH(QString, how);
        SoftwareUpdateDialog dialog(nullptr, {});
        dialog.setDialogSettings({false, false, 2, {}, {}, {}});
        QSignalSpy applied(&dialog, &SoftwareUpdateDialog::applySettings);
        QSignalSpy check(&dialog, &SoftwareUpdateDialog::checkForUpdate);
        dialog.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dialog));
        QDialogButtonBox *box = child<QDialogButtonBox>(&dialog, "buttonBox");
        if (how == "ok")
            QTest::mouseClick(box->button(QDialogButtonBox::Ok), Qt::LeftButton);
        else if (how == "cancel")
            QTest::mouseClick(box->button(QDialogButtonBox::Cancel), Qt::LeftButton);
        else if (how == "close")
            dialog.close();
        else if (how == "check now")
            QTest::mouseClick(child<QPushButton>(&dialog, "updatePushButton"), Qt::LeftButton);
        else
            QTest::keyClick(&dialog, Qt::Key_Escape);
        QTEST(int(applied.count()), "applied");
        QTEST(dialog.result(), "result");
        QTEST(dialog.isVisible(), "visible");
        QTEST(int(check.count()), "checks");
        // Only the client's enableProgress() disables Check Now.
        QVERIFY(child<QPushButton>(&dialog, "updatePushButton")->isEnabled());
        if (applied.count())
            QCOMPARE(applied.first().first().value<SoftwareUpdateDialogSettings>().updateInterval,
                     2);
    }

    // Each selected row counts once, whichever of its cells are selected.
    void selectionDrivesSignals()
    {
        SoftwareUpdateAvailableDialog dialog(nullptr, {});
        QSignalSpy changed(&dialog, &SoftwareUpdateAvailableDialog::currentItemsChangedSig);
        dialog.setTableEntries(rows(4));
        QCOMPARE(changed.count(), 1); // filling the table reports the empty selection
        QVERIFY(changed.first().first().value<SoftUpIndexList>().isEmpty());
        dialog.show();
        QTableWidget *table = child<QTableWidget>(&dialog, "tableWidget");
        table->selectRow(3);
        table->setCurrentCell(0, 0, QItemSelectionModel::Select | QItemSelectionModel::Rows);

        QSignalSpy urls(&dialog, &SoftwareUpdateAvailableDialog::downloadUrls);
        QSignalSpy notes(&dialog, &SoftwareUpdateAvailableDialog::downloadReleaseNotes);
        QSignalSpy install(&dialog, &SoftwareUpdateAvailableDialog::installPackage);
        QSignalSpy settings(&dialog, &SoftwareUpdateAvailableDialog::openUpdateSettings);
        QSignalSpy languages(&dialog, &SoftwareUpdateAvailableDialog::showAllLanguages);
        QTest::mouseClick(child<QPushButton>(&dialog, "downloadPushButton"), Qt::LeftButton);
        QTest::mouseClick(child<QPushButton>(&dialog, "releaseNotesPushButton"), Qt::LeftButton);
        QTest::mouseClick(child<QPushButton>(&dialog, "installPushButton"), Qt::LeftButton);
        QTest::mouseClick(child<QPushButton>(&dialog, "updateSettingsPushButton"), Qt::LeftButton);
        QTest::mouseClick(child<QCheckBox>(&dialog, "showAllLanguagesCheckBox"), Qt::LeftButton);
        const SoftUpIndexList selected = urls.first().first().value<SoftUpIndexList>();
        QCOMPARE(QSet<int>(selected.cbegin(), selected.cend()), QSet<int>({0, 3}));
        QCOMPARE(notes.first().first().value<SoftUpIndexList>().size(), 2);
        QCOMPARE(install.first().first().toInt(), 0); // the current row
        QCOMPARE(settings.count(), 1);
        QCOMPARE(languages.first().first().toBool(), true);
        QVERIFY(dialog.getShowAllLanguagesState());
    }

    void hidingRows_data() { addRows("dialogs-hiding-rows"); }
    void hidingRows()
    {
        QFETCH(SoftUpIndexList, hidden);
        SoftwareUpdateAvailableDialog dialog(nullptr, {});
        dialog.setTableEntries(rows(4));
        dialog.setHiddenEntries({0, 1, 2, 3});
        dialog.setHiddenEntries(hidden);
        QTableWidget *table = child<QTableWidget>(&dialog, "tableWidget");
        for (int r = 0; r < 4; ++r)
            QCOMPARE(table->isRowHidden(r), hidden.contains(r));
    }

    // The comment shows while it has text; filling the table empties it. An empty table is
    // logged, and listeners hear nothing of it.
    void commentTextAndEmptyTable()
    {
        SoftwareUpdateAvailableDialog dialog(nullptr, {});
        dialog.show();
        QTextBrowser *comment = child<QTextBrowser>(&dialog, "commentText");
        QVERIFY(!comment->isVisible());
        dialog.setCommentText("<b>Viewer 2.10</b>");
        QVERIFY(comment->isVisible());
        dialog.setCommentText("");
        QVERIFY(!comment->isVisible());
        QVERIFY(comment->toPlainText().contains("Viewer 2.10")); // hidden, content left
        dialog.setTableEntries(rows(1));
        QVERIFY(!comment->isVisible());
        QVERIFY(comment->toPlainText().isEmpty());
        QSignalSpy changed(&dialog, &SoftwareUpdateAvailableDialog::currentItemsChangedSig);
        QTest::ignoreMessage(
            QtCriticalMsg,
            "SoftwareUpdateAvailableDialog::setTableEntries() -> no table entries set!");
        dialog.setTableEntries({});
        QCOMPARE(changed.count(), 0);
        QCOMPARE(child<QTableWidget>(&dialog, "tableWidget")->rowCount(), 0);
    }

    // The comment names links and files from the catalogue: it fetches no resource (a FIFO would
    // block the GUI for good), and a clicked link opens only when it is http or https.
    void commentLoadsNothingAndOpensOnlyWebLinks()
    {
        QTemporaryDir dir;
        const QString fifo = dir.filePath("fifo");
        QCOMPARE(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        SoftwareUpdateAvailableDialog dialog(nullptr, {});
        QTextBrowser *comment = child<QTextBrowser>(&dialog, "commentText");
        dialog.setCommentText("<img src=\"" + fifo + "\"><img src=\"file:///dev/zero\">x");
        dialog.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dialog));
        QCOMPARE(comment->toPlainText().right(1), QString("x"));
        // The settings dialog's line shows server errors, which name URLs a redirect chose.
        SoftwareUpdateDialog settings(nullptr, {});
        settings.setNotificationText("Error transferring http://h/<img src=\"" + fifo + "\">");
        settings.show();
        QVERIFY(QTest::qWaitForWindowExposed(&settings));
        QCOMPARE(child<QLabel>(&settings, "updateNotificationLabel")->textFormat(), Qt::PlainText);

        m_opened.clear();
        for (const char *scheme : {"http", "https", "file", "smb"})
            QDesktopServices::setUrlHandler(scheme, this, "recordOpened");
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression("not opening file:///etc/passwd: only http"));
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression("not opening smb://host/share: only http"));
        for (const char *link :
             {"file:///etc/passwd", "smb://host/share", "https://example.com/notes"})
            Q_EMIT comment->anchorClicked(QUrl(link));
        for (const char *scheme : {"http", "https", "file", "smb"})
            QDesktopServices::unsetUrlHandler(scheme);
        QCOMPARE(m_opened, QList<QUrl>({QUrl("https://example.com/notes")}));
    }
};

QTEST_MAIN(TestDialogs)
#include "tst_dialogs.moc"
