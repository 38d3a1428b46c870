#include <SoftwareUpdateClient.h>
#include <SoftwareUpdateDialog.h>
#include <TestSupport.h>

using namespace suc::test;

class TestTranslations : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Every German and French locale finds its language, by QTranslator::load(QLocale, ...) or
    // the client's installTranslator(); English needs none and finds none.
    // "checkNow" empty: no translation.
    void foundForEveryLocaleOfTheLanguage_data() { addRows("translations-every-locale"); }
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

    void renderings_data() { addRows("translations-renderings"); }
    void renderings()
    {
        QTranslator translator;
        QVERIFY(translator.load(":/translations/SoftwareUpdateClient_" + row<QString>("language")
                                + ".qm"));
        QCoreApplication::installTranslator(&translator);
        const QString got
            = QCoreApplication::translate(row<QString>("context").toUtf8().constData(),
                                          row<QString>("source").toUtf8().constData());
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
