#include <SoftwareUpdateClient.h>
#include <SoftwareUpdateDialog.h>
#include <TestSupport.h>

#include <QCoreApplication>
#include <QFile>
#include <QLabel>
#include <QPushButton>
#include <QTranslator>
#include <QtTest>

class TestTranslations : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void resourcesRegisteredAtLoad_data()
    {
        QTest::addColumn<QString>("language");
        QTest::newRow("German") << "de_DE";
        QTest::newRow("French") << "fr_FR";
    }
    void resourcesRegisteredAtLoad()
    {
        QFETCH(QString, language);
        const QString path = ":/translations/SoftwareUpdateClient_" + language + ".qm";
        QVERIFY(QFile::exists(path));
        QTranslator translator;
        QVERIFY(translator.load(path));
        QVERIFY(!translator.isEmpty());
        QCOMPARE(translator.language(), language);
    }

    // Every German and French locale finds its language, by QTranslator::load(QLocale, ...) or
    // the client's installTranslator(); English needs none and finds none.
    // "checkNow" empty: no translation.
    void foundForEveryLocaleOfTheLanguage_data()
    {
        suc::test::addRows("translations-every-locale");
    }
    void foundForEveryLocaleOfTheLanguage()
    {
        QFETCH(QString, locale);
        QFETCH(QString, checkNow);
        QTranslator translator;
        QCOMPARE(translator.load(QLocale(locale), "SoftwareUpdateClient", "_", ":/translations"),
                 !checkNow.isEmpty());
        QCOMPARE(qv::SoftwareUpdateClient::installTranslator(QLocale(locale)), !checkNow.isEmpty());
        QCOMPARE(QCoreApplication::translate("SoftwareUpdateDialogGui", "Check Now"),
                 checkNow.isEmpty() ? QString("Check Now") : checkNow);
        for (QTranslator *t : qApp->findChildren<QTranslator *>()) {
            QCoreApplication::removeTranslator(t);
            delete t;
        }
    }

    void renderings_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("context");
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("translation");
        QTest::newRow("de dialog") << "de_DE"
                                   << "SoftwareUpdateDialogGui"
                                   << "Check Now"
                                   << "Jetzt suchen";
        QTest::newRow("de client") << "de_DE"
                                   << "SoftwareUpdateClient"
                                   << "Error downloading! Http status code %1"
                                   << "Fehler beim Herunterladen! HTTP-Statuscode %1";
        QTest::newRow("de kept wording") << "de_DE"
                                         << "SoftwareUpdateClient"
                                         << "After downloading the package, the installer will "
                                            "automatically exit and restart your application!"
                                         << "Nach der Installation des Pakets wird die Anwendung "
                                            "automatisch beendet und neu gestartet!";
        QTest::newRow("de manager") << "de_DE"
                                    << "DownloadManager"
                                    << "Unpacking '%1'"
                                    << "'%1' wird entpackt";
        QTest::newRow("fr list") << "fr_FR"
                                 << "SoftwareUpdateAvailableGui"
                                 << "Show all languages"
                                 << "Afficher tous les langues";
        QTest::newRow("fr no-break space")
            << "fr_FR"
            << "SoftwareUpdateClient"
            << "No update available!" << QString("Aucune mise à jour disponible\u00A0!");
        QTest::newRow("fr manager") << "fr_FR"
                                    << "DownloadManager"
                                    << "Select Installation Path for '%1'"
                                    << "Sélectionner le dossier d'installation pour '%1'";
        QTest::newRow("not translated") << "de_DE"
                                        << "DownloadManager"
                                        << "Unpacking failed"
                                        << "Unpacking failed";
    }
    void renderings()
    {
        QFETCH(QString, language);
        QFETCH(QString, context);
        QFETCH(QString, source);
        QTranslator translator;
        QVERIFY(translator.load(":/translations/SoftwareUpdateClient_" + language + ".qm"));
        QCoreApplication::installTranslator(&translator);
        const QString got = QCoreApplication::translate(context.toUtf8().constData(),
                                                        source.toUtf8().constData());
        QCoreApplication::removeTranslator(&translator);
        QTEST(got, "translation");
    }

    void dialogsFollowTheInstalledTranslator()
    {
        {
            qv::SoftwareUpdateDialog english(nullptr, {});
            QCOMPARE(english.windowTitle(), QString("Check for Updates"));
        }
        QTranslator translator;
        QVERIFY(translator.load(":/translations/SoftwareUpdateClient_de_DE.qm"));
        QCoreApplication::installTranslator(&translator);
        qv::SoftwareUpdateDialog german(nullptr, {});
        QCoreApplication::removeTranslator(&translator);
        QCOMPARE(german.windowTitle(), QString("Nach Updates suchen"));
        QCOMPARE(german.findChild<QPushButton *>("updatePushButton")->text(),
                 QString("Jetzt suchen"));
    }
};

QTEST_MAIN(TestTranslations)
#include "tst_translations.moc"
