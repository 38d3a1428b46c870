#include <ClientCheck.h>
#include <DownloadManager.h>
#include <PrivateNetwork.h>
#include <TestHttpServer.h>
#include <qv/LogQt.h>
#include <qv/UpdateState.h>

#include <limits>

using namespace qv;
using namespace suc::test;
using Response = TestHttpServer::Response;

// Package downloads always use port 80: this test has a loopback of its own.
SUC_PRIVATE_NETWORK_BEFORE_MAIN

// Signed catalogues, made and signed by the minisign tool for each case, against the client's
// check, the manager's queries and package downloads.
class TestTrust : public QObject {
    Q_OBJECT

    QTemporaryDir m_dir;
    QScopedPointer<MinisignTool> m_signer, m_other;
    TestHttpServer m_server;
    QHash<QByteArray, QByteArray> m_files; ///< path -> body; a missing path answers 404
    QHash<QByteArray, QByteArray> m_redirects; ///< path -> Location of a 302
    TestHttpServer::Handler m_packageAnswer; ///< answers below /dl/ when set
    QList<QByteArray> m_asked;
    QScopedPointer<SoftwareUpdateClient> m_client;
    QScopedPointer<QTemporaryDir> m_tmp; ///< the running test's TMPDIR
    const QByteArray m_package = QByteArray(5000, 'p');

    QString url(const QByteArray &path = "/list.xml") const
    {
        return QString::fromLatin1(m_server.url(path));
    }

    // A catalogue of one application package (and one without a hash when asked).
    QByteArray catalogue(qint64 serial, const QString &expires, bool unhashed = false,
                         const QByteArray &file = "viewer-3.0.tar.gz",
                         const QByteArray &body = QByteArray()) const
    {
        const QByteArray package = body.isNull() ? m_package : body;
        const QByteArray hash
            = QCryptographicHash::hash(package, QCryptographicHash::Sha256).toHex();
        QByteArray xml = "<softwareList serial='" + QByteArray::number(serial) + "' expires='"
            + expires.toLatin1() + "' base-url='http://127.0.0.1/dl/'>"
            + "<package-set type='Application' name='Viewer' status='STABLE'>"
            + "<package release='3.0' url='" + file + "' file-size='"
            + QByteArray::number(package.size()) + "' sha256='" + hash + "'/>";
        if (unhashed)
            xml += "<package release='3.1' url='viewer-3.1.tar.gz' file-size='5000'/>";
        return xml + "</package-set></softwareList>";
    }
    static QString future() { return QDate::currentDate().addDays(30).toString(Qt::ISODate); }
    // Publishes `xml` as /list.xml with a signature written by `signer` (none when null) for a
    // file of the name `signedAs` (minisign names it in the trusted comment).
    void publish(const QByteArray &xml, const MinisignTool *signer, bool legacy = false,
                 const QString &signedAs = "list.xml")
    {
        const QString file = m_dir.filePath(signedAs);
        QVERIFY(writeFile(file, xml));
        m_files["/list.xml"] = xml;
        m_files.remove("/list.xml.minisig");
        if (!signer)
            return;
        QFile::remove(file + ".minisig");
        QVERIFY(signer->sign(file, legacy));
        m_files["/list.xml.minisig"] = readFile(file + ".minisig");
    }
    void restartClient()
    {
        m_client.reset();
        closeAllWindows();
        m_client.reset(new SoftwareUpdateClient("Viewer", VersionNumber("2.9.1"), url(), nullptr));
        m_client->setTrustedKeys({m_signer->publicKey()});
    }
    // An application folder Viewer-3 holding `program` (a script saying `says`), packed as
    // `archive` (zip or tar.gz by its name).
    QByteArray packApplication(const QString &archive, const QString &program,
                               const QByteArray &says = "genuine")
    {
        QTemporaryDir src;
        QDir().mkpath(src.filePath("Viewer-3/lib"));
        writeFile(src.filePath("Viewer-3/" + program), "#!/bin/sh\necho " + says + "\n", 0755);
        const QString packed = src.filePath(archive);
        QProcess::execute("bsdtar", {"-a", "-cf", packed, "-C", src.path(), "Viewer-3"});
        return readFile(packed);
    }
    static QString programName()
    {
        return QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    }
    // The unpacked new versions waiting beside the application (the test program's folder), by
    // folder: what each one's program says, empty when it has none.
    static QMap<QString, QString> unpacked()
    {
        const QFileInfo application(QCoreApplication::applicationDirPath());
        QMap<QString, QString> found;
        for (const QFileInfo &f :
             QDir(application.path())
                 .entryInfoList({application.fileName() + ".update-unpacked-*"}, QDir::Dirs)) {
            const QByteArray program = readFile(f.filePath() + "/Viewer-3/" + programName());
            found.insert(f.filePath(), QString::fromLatin1(program.split('\n').value(1).mid(5)));
        }
        return found;
    }

    QString checkFromDialog() { return suc::test::checkFromDialog(m_client.data()).join(','); }

    // A host (exec_helper) installed as `parent`/Viewer, and a signed catalogue offering its new
    // version as a ZIP package whose program is a script holding `says`: the application folder.
    QString installHost(const QTemporaryDir &parent, const QByteArray &says = "genuine")
    {
        const QString app = parent.filePath("Viewer");
        QDir().mkpath(app);
        QFile::copy(SUC_EXEC_HELPER, app + "/exec_helper");
        const QByteArray body = packApplication("viewer-3.0.zip", "exec_helper", says);
        m_files["/dl/viewer-3.0.zip"] = body;
        publish(catalogue(7, future(), false, "viewer-3.0.zip", body), m_signer.data());
        return app;
    }

private Q_SLOTS:
    void initTestCase()
    {
        // A store of its own: another run of this program may be going on beside it.
        useOwnClientStore("trust");
        m_signer.reset(new MinisignTool(m_dir.filePath("keys")));
        m_other.reset(new MinisignTool(m_dir.filePath("keys"), "other"));
        QVERIFY2(m_signer->isValid() && m_other->isValid(),
                 "the minisign tool is needed (Debian package minisign)");
        m_server.setHandler([this](const TestHttpServer::Request &r) {
            m_asked << r.target;
            if (m_redirects.contains(r.target))
                return Response::redirect(302, m_redirects.value(r.target));
            if (r.target.startsWith("/dl/") && m_packageAnswer)
                return m_packageAnswer(r);
            if (r.target == "/dl/viewer-3.0.tar.gz")
                return Response::ok(m_files.value(r.target, m_package));
            return m_files.contains(r.target) ? Response::ok(m_files.value(r.target), "text/xml")
                                              : Response::error(404, "<html>not here</html>");
        });
        SUC_LISTEN_ON_PORT_80(m_server);
    }
    void cleanupTestCase() { removeOwnClientStore(); }
    void init()
    {
        // Each test's temporary files, the client's downloads among them, in a folder of its own.
        m_tmp.reset(new QTemporaryDir(m_dir.filePath("tmp-XXXXXX")));
        qputenv("TMPDIR", QFile::encodeName(m_tmp->path()));
        QFile::remove(clientStore().fileName());
        m_files.clear();
        m_redirects.clear();
        m_packageAnswer = nullptr;
        m_asked.clear();
        restartClient();
    }
    void cleanup()
    {
        SoftwareUpdateClient::setInstallMode(SoftwareUpdateClient::DesignedInstall);
        m_client.reset();
        closeAllWindows();
        qunsetenv("TMPDIR");
        for (const QString &folder : unpacked().keys())
            QDir(folder).removeRecursively();
    }

    // What the client makes of each way a signed catalogue can be right or wrong: the offered
    // rows, or the dialog's line. ("another feed": the same publisher's catalogue of another
    // product, with the highest serial there is, is refused for this feed, and the genuine one is
    // still taken afterwards.)
    void checks_data() { addRows("trust-checks"); }
    void checks()
    {
        QFETCH(QString, variant);
        const QString future = this->future();
        QByteArray xml = catalogue(7, future, variant == "unhashed" || variant == "no keys");
        publish(xml, variant == "wrong key" ? m_other.data() : m_signer.data(),
                variant == "legacy");
        if (variant == "second key")
            m_client->setTrustedKeys({m_other->publicKey(), m_signer->publicKey()});
        else if (variant == "changed")
            m_files["/list.xml"].replace("release='3.0'", "release='3.9'");
        else if (variant == "unsigned")
            m_files.remove("/list.xml.minisig");
        else if (variant == "other file") {
            publish(catalogue(8, future), m_signer.data());
            m_files["/list.xml"] = xml;
        } else if (variant == "junk")
            m_files["/list.xml.minisig"] = "untrusted comment: x\nRWQ\ntrusted comment: y\n!!\n";
        else if (variant == "huge")
            m_files["/list.xml.minisig"] = QByteArray(1 << 20, 'A');
        else if (variant == "expired")
            publish(catalogue(7, "2001-01-01"), m_signer.data());
        else if (variant == "no values")
            publish("<softwareList/>", m_signer.data());
        else if (variant == "no keys")
            m_client->setTrustedKeys({});
        else if (variant == "bad key") {
            QTest::ignoreMessage(QtCriticalMsg,
                                 QRegularExpression("refusing a trusted key that is not a "
                                                    "minisign public key: RWQnot"));
            m_client->setTrustedKeys({"RWQnot-a-key"});
        }
        if (variant == "rollback" || variant == "rotated") {
            QCOMPARE(checkFromDialog(), QString("Viewer 3.0"));
            restartClient();
            publish(catalogue(6, future), variant == "rotated" ? m_other.data() : m_signer.data());
            if (variant == "rotated")
                m_client->setTrustedKeys({m_signer->publicKey(), m_other->publicKey()});
        } else if (variant == "other feed") {
            publish(catalogue(std::numeric_limits<qint64>::max(), future), m_signer.data(), false,
                    "other.xml");
            QCOMPARE(checkFromDialog(),
                     QString("The update catalogue is not signed for this update server. No "
                             "updates are offered."));
            restartClient();
            publish(xml, m_signer.data());
        } else if (variant == "loop") {
            m_redirects["/list.xml"] = "/list.xml";
        } else if (variant == "relative") {
            m_redirects["/list.xml"] = "moved/list.xml";
            m_files["/moved/list.xml"] = m_files.take("/list.xml");
            m_files["/moved/list.xml.minisig"] = m_files.take("/list.xml.minisig");
        }
        // Within the check's 20 s: a loop is not followed for long.
        QCOMPARE(checkFromDialog(), row<QString>("outcome"));
        if (variant == "no keys")
            QCOMPARE(m_asked, QList<QByteArray>({"/list.xml"}));
        QVERIFY(m_asked.size() <= 21);
    }

    // Every catalogue value shown in the comment is text: markup in it is shown, never run (an
    // image naming a FIFO froze the GUI).
    // "from" is replaced in the catalogue by "to"; FIFO stands for a FIFO's path.
    void catalogueValuesAreText_data() { addRows("trust-catalogue-values-are-text"); }
    void catalogueValuesAreText()
    {
        QFETCH(QByteArray, to);
        QFETCH(QString, shown);
        const QString fifo = m_tmp->filePath("fifo");
        to.replace("FIFO", fifo.toUtf8());
        shown.replace("FIFO", fifo);
        QCOMPARE(mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        publish(catalogue(7, future()).replace(row<QByteArray>("from"), to), m_signer.data());
        m_client->setCurrentCameraVersions({{QString("M1"), VersionNumber("1.0")}});
        checkFromDialog();
        auto *list = openDialog<SoftwareUpdateAvailableDialog>();
        QVERIFY(list);
        list->findChild<QTableWidget *>("tableWidget")->selectRow(0);
        auto *comment = list->findChild<QTextBrowser *>("commentText");
        QTRY_VERIFY(comment->isVisible());
        QVERIFY2(comment->toPlainText().contains(shown), qPrintable(comment->toPlainText()));
        QVERIFY(!comment->toHtml().contains("<img"));
    }

    // The manager's queries follow the client's rules. With keys, its kept copy of the last
    // answer is offered only while it verifies: not one kept before keys were set, not one that
    // has expired since, not one without its signature.
    void cachedOffers_data() { addRows("trust-cached-offers"); }
    void cachedOffers()
    {
        QFETCH(QString, variant);
        QFETCH(int, offered);
        const QString settingsFile = m_tmp->filePath("cache.ini");
        const QString cacheFile = m_tmp->filePath("cache.xml");
        publish(catalogue(5, variant == "expired" ? "2001-01-01" : future()), m_signer.data(),
                false, variant == "other feed" ? "other.xml" : "list.xml");
        if (variant == "verified" || variant == "unsigned") {
            QSettings settings(settingsFile, QSettings::IniFormat);
            DownloadManager manager {QUrl(url())};
            if (variant == "verified")
                manager.setTrustedKeys({m_signer->publicKey()});
            QSignalSpy finished(&manager, &DownloadManager::queryFinished);
            manager.queryUpdate();
            QVERIFY(finished.wait(10000));
            manager.storeHistory(settings, cacheFile);
        } else {
            // Written by someone else, or long ago.
            QVERIFY(writeFile(cacheFile, m_files.value("/list.xml")));
            if (variant != "no signature")
                QVERIFY(writeFile(cacheFile + ".minisig", m_files.value("/list.xml.minisig")));
        }
        QVERIFY(QFileInfo(cacheFile).size() > 0);
        QSettings settings(settingsFile, QSettings::IniFormat);
        settings.setValue("Download/ver", 3);
        DownloadManager later(settings, cacheFile);
        later.setServer(QUrl(url()));
        later.setTrustedKeys({m_signer->publicKey()});
        if (!offered)
            QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("dropping the kept catalogue"));
        QCOMPARE(later.recentPackages(PackageInfo()).size(), offered);
        QCOMPARE(later.recentPackages(PackageInfo()).size(), offered); // and each time it is read
        if (variant != "verified")
            return;
        // The highest serial was kept too: an older catalogue is refused, and not kept.
        publish(catalogue(4, future()), m_signer.data());
        QSignalSpy none(&later, &DownloadManager::noPackageFound);
        later.queryUpdate();
        QVERIFY(none.wait(10000));
        QCOMPARE(later.recentPackages(PackageInfo()).size(), 1);
    }

    // CompleteInstall: the verified package is unpacked before the restart question and must
    // hold the program (named like the running one); without trusted keys it installs nothing,
    // and is handled as without CompleteInstall, with a log line. ("delta": a delta from 2.9.1 is
    // listed that is none.)
    void completeInstall_data() { addRows("trust-complete-install"); }
    void completeInstall()
    {
        QFETCH(QString, archive);
        QFETCH(bool, withProgram);
        QFETCH(bool, keys);
        QFETCH(QString, lastBox);
        QFETCH(bool, delta);
        const QByteArray body = packApplication(archive, withProgram ? programName() : "other");
        QVERIFY(!body.isEmpty());
        m_files["/dl/" + archive.toUtf8()] = body;
        m_files["/dl/viewer.delta"] = "SUCDELTA but nothing else";
        const QByteArray deltaHash
            = QCryptographicHash::hash(m_files["/dl/viewer.delta"], QCryptographicHash::Sha256)
                  .toHex();
        QByteArray xml = catalogue(7, future(), false, archive.toUtf8(), body);
        if (delta)
            xml.replace("'/></package-set>",
                        QByteArray("'><delta from-release='2.9.1' url='viewer.delta' "
                                   "file-size='25' sha256='"
                                   + deltaHash + "'/></package></package-set>"));
        publish(xml, m_signer.data());
        SoftwareUpdateClient::setInstallMode(SoftwareUpdateClient::CompleteInstall);
        restartClient();
        if (!keys)
            m_client->setTrustedKeys({});
        m_client->setDeltaUpdates(delta);
        LogWatcher log;
        QSignalSpy ready(m_client.data(), &SoftwareUpdateClient::readyToRestart);
        QSignalSpy failed(m_client.data(), &SoftwareUpdateClient::installFailed);
        QVERIFY(checkFromDialog().startsWith("Viewer 3"));
        BoxAnswerer answerer({"Proceed", "Restart later", "OK"});
        Q_EMIT openDialog<SoftwareUpdateAvailableDialog>()->installPackage(0);
        QTRY_VERIFY(answerer.seen.size() >= 2 && !QApplication::activeModalWidget());
        QVERIFY2(answerer.seen.last().startsWith(lastBox), qPrintable(answerer.seen.join('\n')));
        // The boxes of an interactive install come with the signals.
        const bool installed = lastBox.startsWith("Restart required");
        QCOMPARE(ready.size(), installed ? 1 : 0);
        QCOMPARE(failed.size(), installed ? 0 : 1);
        if (!installed)
            QVERIFY(lastBox.contains(failed.first().at(1).toString().left(40)));
        if (!keys) {
            QVERIFY(log.saw("a complete install needs trusted keys"));
            // The designed ZIP route unpacks in the background, and removes the archive when it
            // is done: this test's folders stay until then.
            QTRY_VERIFY(downloadedFiles(archive).isEmpty());
            return;
        }
        if (delta) { // set aside for good, with one line
            QVERIFY(log.saw("is not used: the manifest is larger than the delta allows; "
                            "downloading the full package"));
            QCOMPARE(m_client->badDeltas(), QStringList {deltaHash});
        }
        // Only the unpacked new version is left: the archive's folder is gone, and a package
        // without the program leaves nothing.
        QTRY_COMPARE(unpacked().values(), withProgram ? QStringList {"genuine"} : QStringList());
        QCOMPARE(QDir::temp().entryList({"softwareupdate-*"}, QDir::Dirs), QStringList());
    }

    // Install pressed again while the first download runs: in CompleteInstall the second press
    // is refused and the button disabled; in every mode only the file of the download that
    // succeeded is used, never one another request wrote meanwhile.
    void secondInstallPress_data() { addRows("trust-second-install-press"); }
    void secondInstallPress()
    {
        QFETCH(bool, complete);
        const QByteArray archive = complete ? "viewer-3.0.zip" : "viewer-3.0.tar.gz";
        const QByteArray genuine = packApplication(archive, programName());
        const QByteArray attackers = packApplication(archive, programName(), "attacker");
        int served = 0;
        // The first answer comes late (the download is running when Install is pressed again);
        // any later one is the attacker's, at once: it ends, refused, while the first still runs.
        m_packageAnswer = [&](const TestHttpServer::Request &) {
            Response r = Response::ok(served == 0 ? genuine : attackers);
            r.delayMs = served++ == 0 ? 800 : 0;
            return r;
        };
        publish(catalogue(7, future(), false, archive, genuine), m_signer.data());
        if (complete)
            SoftwareUpdateClient::setInstallMode(SoftwareUpdateClient::CompleteInstall);
        restartClient();
        LogWatcher log;
        QSignalSpy installing(m_client.data(), &SoftwareUpdateClient::installationStarted);
        QCOMPARE(checkFromDialog(), QString("Viewer 3.0"));
        auto *list = openDialog<SoftwareUpdateAvailableDialog>();
        list->findChild<QTableWidget *>("tableWidget")->selectRow(0);
        BoxAnswerer answerer({"Proceed", "Restart later", "OK"});
        Q_EMIT list->installPackage(0);
        QTRY_COMPARE(served, 1);
        if (complete)
            QVERIFY(!list->findChild<QPushButton *>("installPushButton")->isEnabled());
        Q_EMIT list->installPackage(0);
        QTRY_VERIFY(installing.size() == 1);
        if (complete) {
            QVERIFY(log.saw("an installation is already running; refusing another"));
            QTRY_VERIFY(answerer.seen.last().startsWith("Restart required"));
            QCOMPARE(served, 1);
            QCOMPARE(unpacked().values(), QStringList {"genuine"});
        } else {
            // The file handed on is the verified first download; the second, the attacker's,
            // was erased by its own check (changed, or shorter than published).
            QTRY_COMPARE(served, 2);
            QTRY_COMPARE_WITH_TIMEOUT(downloadedFiles(archive), QList<QByteArray> {genuine}, 30000);
        }
        QTRY_VERIFY(!QApplication::activeModalWidget());
    }

    // The updater that runs is a private copy of the one installed beside the program: one
    // planted in the application's parent folder never runs, and a parent that others can write
    // refuses the install before anything is downloaded. A host process installs for real.
    // The application on a small file system (its own mount namespace) when the package does not
    // fit beside it; when nothing can be made beside it, it is unpacked in the temporary folder.
    void updaterThatRuns_data() { addRows("trust-updater-that-runs"); }
    void updaterThatRuns()
    { // octal
        QFETCH(QString, ran);
        QFETCH(QString, box);
        QTemporaryDir parent;
        const QString app = installHost(parent);
        const QString marker = parent.filePath("updater-ran.txt");
        for (const auto &[path, who] :
             {std::pair<QString, QByteArray>(app + "/UpdateInstaller", "ours"),
              std::pair<QString, QByteArray>(parent.filePath("UpdateInstaller"), "planted")}) {
            QVERIFY(writeFile(
                path, "#!/bin/sh\necho " + who + " \"$0\" >> \"" + marker.toUtf8() + "\"\n", 0755));
        }
        QCOMPARE(chmod(QFile::encodeName(parent.path()).constData(),
                       mode_t(row<QString>("parentMode").toInt(nullptr, 8))),
                 0);
        chmod(QFile::encodeName(app).constData(), 0755);
        QStringList command {app + "/exec_helper", "completeInstall", url(), m_signer->publicKey()};
        if (box.contains("free disk space") || box == "read-only") {
            const QString small = parent.filePath("small");
            QVERIFY(QDir().mkpath(small));
            // Room for the program and little more: less than any package needs to unpack.
            const QString room = QString::number(QFileInfo(command.first()).size() / 1024 + 4096);
            command
                = QStringList {"unshare",
                               "--mount",
                               "--propagation",
                               "private",
                               "sh",
                               "-c",
                               "mount -t tmpfs -o size=" + room + "k,mode=0755 tmpfs \"$0\" "
                                   + "&& cp -a \"$1\" \"$0/\" "
                                   + (box == "read-only" ? "&& mount -o remount,ro \"$0\" " : "")
                                   + "&& exec \"$0/Viewer/exec_helper\" \"$2\" \"$3\" \"$4\"",
                               small,
                               app}
                + command.mid(1);
        }
        // The host runs the client's event loop; this test serves it meanwhile.
        const Run host = run(command.takeFirst(), command, {}, 40000);
        const QString said = host.out.right(5000);
        // The updater ran (once the host had quit) as a copy in a private temporary folder of
        // its own.
        if (!ran.isEmpty())
            QTRY_VERIFY(!readFile(marker).isEmpty());
        const QString copy = QDir::tempPath() + "/softwareupdate-";
        QVERIFY2(QString::fromUtf8(readFile(marker)).trimmed().section(copy, 0, 0) == ran,
                 qPrintable(said));
        if (ran.isEmpty()) {
            QVERIFY2(host.code == 5, qPrintable(said));
            QVERIFY2(said.contains("Installation failed | " + box.arg(parent.path())),
                     qPrintable(said));
            // Refused before the download, or before anything was unpacked.
            QVERIFY(!m_asked.contains("/dl/viewer-3.0.zip") || box.contains("free disk space"));
        } else {
            QVERIFY2(said.contains("Restart required"), qPrintable(said));
            // Left in the temporary folder: the updater's copy (and the unpacked version, when
            // nothing could be made beside the application), for the next start to remove.
            QCOMPARE(QDir::temp().entryList({"softwareupdate-*"}, QDir::Dirs).size(),
                     box == "read-only" ? 2 : 1);
        }
        chmod(QFile::encodeName(parent.path()).constData(), 0700);
    }

    // The next start settles what the last update left: the temporary folders of a complete
    // install go (only ours, only inside the temporary folder), and a release that was installed
    // and rolled back is not offered again (the user is told so once) until a newer one is
    // published, or the host forgets it.
    void nextStartSettlesWhatTheUpdateLeft()
    {
        qputenv("XDG_STATE_HOME", QFile::encodeName(m_dir.filePath("state")));
        const auto restore = qScopeGuard([] { qunsetenv("XDG_STATE_HOME"); });
        m_client.reset();
        const QString temp = QDir::tempPath();
        for (const char *folder :
             {"softwareupdate-unpacked/Viewer-3", "softwareupdate-updater", "someone-elses"})
            QVERIFY(QDir().mkpath(temp + "/" + folder));
        const QString outside = m_dir.filePath("softwareupdate-outside");
        QVERIFY(QDir().mkpath(outside));
        clientStore().setValue("updateLeftovers",
                               QStringList {temp + "/softwareupdate-unpacked",
                                            temp + "/softwareupdate-updater",
                                            temp + "/someone-elses", outside});
        clientStore().setValue("updateInstalling", "3.0");
        QVERIFY(UpdateState::writePrivate(
            UpdateState::folderFor(QCoreApplication::applicationDirPath()) + "/rolled-back",
            "the new program exited with code 3\n"));
        publish(catalogue(7, future()), m_signer.data());
        BoxAnswerer answerer({"OK"});
        restartClient();
        QCOMPARE(QDir(temp).entryList(QDir::Dirs | QDir::NoDotAndDotDot),
                 QStringList {"someone-elses"});
        QVERIFY(QFileInfo::exists(outside));
        QVERIFY(!clientStore().contains("updateLeftovers"));
        QTRY_COMPARE(answerer.seen.size(), 1);
        QVERIFY2(answerer.seen.first().contains(
                     "Version 3.0 is not offered again until a newer one is published."),
                 qPrintable(answerer.seen.first()));
        QCOMPARE(m_client->rolledBackVersions(), QStringList {"3.0"});
        QCOMPARE(checkFromDialog(), QString("Congratulations! Your product is up-to-date!"));
        publish(catalogue(8, future()).replace("release='3.0'", "release='3.1'"), m_signer.data());
        QCOMPARE(checkFromDialog(), QString("Viewer 3.1"));
        closeAllWindows();
        m_client->forgetRolledBackVersions();
        publish(catalogue(9, future()), m_signer.data());
        QCOMPARE(checkFromDialog(), QString("Viewer 3.0"));
    }

    // When the session that accepted the update for later did not quit normally, the next start
    // installs it, as "Restart now" would: the new version runs and confirms.
    void restartLaterInstallsAtTheNextStartAfterACrash()
    {
        QSettings(QSettings::IniFormat, QSettings::UserScope, "SucTestHelper", "Viewer").clear();
        QTemporaryDir parent;
        const QString marker = parent.filePath("new-version-ran");
        chmod(QFile::encodeName(parent.path()).constData(), 0755);
        // The new version notes that it ran, then is a host that confirms by itself.
        const QString app = installHost(
            parent, "yes > \"" + marker.toUtf8() + "\"\nexec \"" SUC_EXEC_HELPER "\" host");
        QVERIFY(QFile::copy(SUC_UPDATE_INSTALLER, app + "/UpdateInstaller"));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", parent.filePath("state"));
        env.insert("UPDATEINSTALLER_LOG", parent.filePath("UpdateInstaller.log"));
        const auto run = [&](const QStringList &args) {
            QProcess host;
            host.setProcessEnvironment(env);
            // Into a file: the versions the updater starts later write there too.
            host.setStandardOutputFile(parent.filePath("host.out"), QIODevice::Append);
            host.setStandardErrorFile(parent.filePath("host.out"), QIODevice::Append);
            host.start(app + "/exec_helper", args);
            return host.waitForStarted()
                && QTest::qWaitFor([&] { return host.state() == QProcess::NotRunning; }, 60000)
                && host.exitStatus() == QProcess::NormalExit && host.exitCode() == 0;
        };
        QVERIFY(run({"completeInstall", url(), m_signer->publicKey(), "later-crash"}));
        QVERIFY(!QFileInfo::exists(marker)); // not installed: that session did not quit normally
        // Quits, and the updater, waiting for it to end, installs and starts the new version.
        QVERIFY(run({"start", m_signer->publicKey()}));
        QTRY_VERIFY(QFileInfo::exists(marker));
        QTRY_VERIFY2(readFile(parent.filePath("UpdateInstaller.log"))
                         .contains("the new version confirmed that it runs"),
                     readFile(parent.filePath("UpdateInstaller.log")));
    }
};

QTEST_MAIN(TestTrust)
#include "tst_trust.moc"
