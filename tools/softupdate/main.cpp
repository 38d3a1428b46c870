// softupdate: the publisher's side of the update catalogue.
//
//   softupdate add CATALOGUE FILE --type T --name N --release R [options]
//   softupdate sign CATALOGUE --key SECRET_KEY_FILE [--trusted-comment TEXT]
//   softupdate verify CATALOGUE --key PUBLIC_KEY
//   softupdate lint CATALOGUE|URL
//   softupdate offer (--server URL | --file CATALOGUE) --app NAME --version V [options]
//   softupdate serve DIR [--port N]
//
// Every value the client reads from a package is filled from the file itself (size, date, hash),
// and signatures are minisign's, so either tool verifies the other's.

#include "Signing.h"
#include "StaticServer.h"

#include <DownloadManager.h>
#include <PackageTable.h>
#include <SoftwareUpdateClient.h>
#include <qv/Exceptions.h>
#include <qv/Minisign.h>
#include <qv/Sha256.h>
#include <qv/StringUtils.h>
#include <qv/XmlUtils.h>

#include <QBuffer>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDomDocument>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <memory>

#include <termios.h>
#include <unistd.h>

namespace {

enum ExitCode { Success = 0, Failure = 1, Usage = 2 };

int fail(const QString &message, int code = Failure)
{
    std::fprintf(stderr, "softupdate: %s\n", qPrintable(message));
    return code;
}

// A password: asked for on the terminal with echo off, else the first line of standard input.
QByteArray readPassword(const QString &prompt)
{
    const bool terminal = isatty(STDIN_FILENO);
    termios saved {};
    if (terminal) {
        std::fprintf(stderr, "%s", qPrintable(prompt));
        std::fflush(stderr);
        tcgetattr(STDIN_FILENO, &saved);
        termios silent = saved;
        silent.c_lflag &= ~tcflag_t(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
    }
    QByteArray line;
    char c = 0;
    while (read(STDIN_FILENO, &c, 1) == 1 && c != '\n' && line.size() < 4096)
        line += c;
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
        std::fprintf(stderr, "\n");
    }
    if (line.endsWith('\r'))
        line.chop(1);
    return line;
}

bool readFile(const QString &path, QByteArray *data, qint64 limit)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly) || f.size() > limit)
        return false;
    *data = f.readAll();
    return true;
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QSaveFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(data) == data.size() && f.commit();
}

// Parses the options of one subcommand; `positional` names its arguments for the help text.
bool parse(QCommandLineParser &parser, const QStringList &args, const QStringList &positional,
           int *exitCode)
{
    parser.addHelpOption();
    for (const QString &name : positional)
        parser.addPositionalArgument(name, QString());
    if (!parser.parse(args)) {
        *exitCode = fail(parser.errorText(), Usage);
        return false;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        std::printf("%s", qPrintable(parser.helpText()));
        *exitCode = Success;
        return false;
    }
    if (parser.positionalArguments().size() != positional.size()) {
        *exitCode
            = fail(QStringLiteral("expected %1; see --help").arg(positional.join(' ')), Usage);
        return false;
    }
    return true;
}

int add(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral(
        "Adds one package to CATALOGUE (creating it if needed): size, release date, URL and "
        "sha256 come from FILE, the serial is raised, the rest of the document stays."));
    const QCommandLineOption type(QStringLiteral("type"), "\"Application\" or \"Camera Firmware\".",
                                  "T");
    const QCommandLineOption name(QStringLiteral("name"), "The product or camera model.", "N");
    const QCommandLineOption release(QStringLiteral("release"), "The version, e.g. 2.10.1.", "R");
    const QCommandLineOption publicName(QStringLiteral("public-name"), "Name shown to users.", "N");
    const QCommandLineOption publicRelease(QStringLiteral("public-release"),
                                           "Version shown to users.", "R");
    const QCommandLineOption status(QStringLiteral("status"), "STABLE (default) or BETA.", "S",
                                    "STABLE");
    const QCommandLineOption platform(QStringLiteral("platform"), "A platform (repeatable).", "P");
    const QCommandLineOption language(QStringLiteral("language"), "A language (repeatable).", "L");
    const QCommandLineOption notes(QStringLiteral("release-notes"), "LANG=URL (repeatable).",
                                   "LANG=URL");
    const QCommandLineOption baseUrl(QStringLiteral("base-url"),
                                     "Where FILE will be downloaded from (ends in /).", "URL");
    const QCommandLineOption expires(
        QStringLiteral("expires"),
        "Expiry of the catalogue (yyyy-MM-dd); kept, or 90 days from now for a new one.", "DATE");
    p.addOptions({type, name, release, publicName, publicRelease, status, platform, language, notes,
                  baseUrl, expires});
    int code = Usage;
    if (!parse(p, args, {"CATALOGUE", "FILE"}, &code))
        return code;
    if (!p.isSet(type) || !p.isSet(name) || !p.isSet(release))
        return fail(QStringLiteral("add needs --type, --name and --release"), Usage);
    if (p.value(type) != u"Application" && p.value(type) != u"Camera Firmware")
        return fail(QStringLiteral("--type is \"Application\" or \"Camera Firmware\""), Usage);
    const QString catalogue = p.positionalArguments().at(0);
    const QString file = p.positionalArguments().at(1);
    const QString fileName = QFileInfo(file).fileName();
    static const QRegularExpression control(QStringLiteral("[\\x00-\\x1f\\x7f]"));
    if (control.match(fileName).hasMatch())
        return fail(QStringLiteral("the file name %1 holds a control character; rename the file")
                        .arg(QString::fromLatin1(QUrl::toPercentEncoding(fileName))),
                    Usage);

    QDomDocument doc;
    if (QFileInfo::exists(catalogue)) {
        QFile in(catalogue);
        if (!in.open(QIODevice::ReadOnly))
            return fail(QStringLiteral("cannot read %1").arg(catalogue));
        try {
            qv::XmlUtils::parseXml(&in, &doc);
        } catch (const qv::ExceptionQt &e) {
            return fail(QStringLiteral("%1 is not a catalogue the client reads: %2")
                            .arg(catalogue, e.message()));
        }
    } else {
        doc.appendChild(doc.createElement(QStringLiteral("softwareList")));
    }
    QDomElement root = doc.documentElement();

    QFile package(file);
    if (!package.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("cannot read %1").arg(file));
    qv::Sha256 hash;
    while (!package.atEnd())
        hash.addData(package.read(1 << 20));
    const QFileInfo info(file);

    // Every package gets the values the client needs; none is typed by hand.
    QDomElement e = doc.createElement(qv::DownloadManager::PACKAGE);
    e.setAttribute(qv::DownloadManager::TYPE, p.value(type));
    e.setAttribute(qv::DownloadManager::NAME, p.value(name));
    e.setAttribute(qv::DownloadManager::RELEASE_VERSION, p.value(release));
    if (p.isSet(publicName))
        e.setAttribute(qv::DownloadManager::NAME_PUBLIC, p.value(publicName));
    if (p.isSet(publicRelease))
        e.setAttribute(qv::DownloadManager::RELEASE_VERSION_PUBLIC, p.value(publicRelease));
    e.setAttribute(qv::DownloadManager::RELEASE_STATUS, p.value(status));
    e.setAttribute(qv::DownloadManager::RELEASE_DATE,
                   info.lastModified().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")));
    e.setAttribute(qv::DownloadManager::FILE_SIZE, QString::number(info.size()));
    if (p.isSet(baseUrl))
        e.setAttribute(qv::DownloadManager::BASE_URL, p.value(baseUrl));
    // The name is one path segment of a URL: "#", "?", "%" and blanks are encoded.
    e.setAttribute(qv::DownloadManager::URL,
                   QString::fromLatin1(QUrl::toPercentEncoding(fileName)));
    e.setAttribute(qv::DownloadManager::SHA256, QString::fromLatin1(hash.result().toHex()));
    if (p.isSet(platform))
        e.setAttribute(qv::DownloadManager::PLATFORM, p.values(platform).join(QLatin1Char(',')));
    if (p.isSet(language))
        e.setAttribute(qv::DownloadManager::LANGUAGE, p.values(language).join(QLatin1Char(',')));
    for (const QString &note : p.values(notes)) {
        const qsizetype eq = note.indexOf(QLatin1Char('='));
        if (eq <= 0)
            return fail(QStringLiteral("--release-notes takes LANG=URL, not %1").arg(note), Usage);
        QDomElement n = doc.createElement(qv::DownloadManager::RELEASE_NOTES);
        n.setAttribute(qv::DownloadManager::LANGUAGE, note.left(eq));
        n.setAttribute(qv::DownloadManager::URL, note.mid(eq + 1));
        e.appendChild(n);
    }
    root.appendChild(e);

    const qint64 serial
        = qMax<qint64>(0, root.attribute(qv::DownloadManager::SERIAL).toLongLong()) + 1;
    root.setAttribute(qv::DownloadManager::SERIAL, QString::number(serial));
    if (p.isSet(expires))
        root.setAttribute(qv::DownloadManager::EXPIRES, p.value(expires));
    else if (!root.hasAttribute(qv::DownloadManager::EXPIRES))
        root.setAttribute(qv::DownloadManager::EXPIRES,
                          QDate::currentDate().addDays(90).toString(Qt::ISODate));
    if (!writeFile(catalogue, doc.toByteArray(2)))
        return fail(QStringLiteral("cannot write %1").arg(catalogue));
    std::printf("added %s %s (%lld bytes, sha256 %s) to %s; serial %lld; sign it again\n",
                qPrintable(p.value(name)), qPrintable(p.value(release)), info.size(),
                hash.result().toHex().constData(), qPrintable(catalogue), serial);
    return Success;
}

int sign(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral(
        "Writes CATALOGUE.minisig with a minisign secret key (the password of an encrypted key "
        "comes from SOFTUPDATE_PASSWORD, else it is asked for on the terminal without echo, or "
        "read from the first line of standard input when that is no terminal)."));
    const QCommandLineOption key(QStringLiteral("key"), "The minisign secret key file.", "FILE");
    const QCommandLineOption comment(
        QStringLiteral("trusted-comment"),
        "The signed comment; \"<TAB>file:<catalogue name>\" is added when missing, as clients "
        "accept a catalogue only for the feed it was signed as.",
        "TEXT");
    p.addOptions({key, comment});
    int code = Usage;
    if (!parse(p, args, {"CATALOGUE"}, &code))
        return code;
    if (!p.isSet(key))
        return fail(QStringLiteral("sign needs --key SECRET_KEY_FILE"), Usage);
    const QString catalogue = p.positionalArguments().at(0);
    QByteArray message;
    if (!readFile(catalogue, &message, qv::XmlLimits().maxBytes))
        return fail(
            QStringLiteral("cannot read %1 (or it is larger than any catalogue)").arg(catalogue));
    QByteArray password = qgetenv("SOFTUPDATE_PASSWORD");
    SecretKey secret = SecretKey::load(p.value(key), password);
    if (!secret.isValid() && secret.isEncrypted() && password.isEmpty()) {
        password = readPassword(QStringLiteral("Password for %1: ").arg(p.value(key)));
        secret = SecretKey::load(p.value(key), password);
    }
    if (!secret.isValid())
        return fail(secret.error());
    // Clients accept a catalogue only for the feed its signature names ("file:"), as minisign
    // writes it; a comment of the publisher's own keeps that field.
    const QString feed = QStringLiteral("file:") + QFileInfo(catalogue).fileName();
    QString trusted = p.isSet(comment) ? p.value(comment)
                                       : QStringLiteral("timestamp:%1\t%2\thashed")
                                             .arg(QDateTime::currentSecsSinceEpoch())
                                             .arg(feed);
    if (!trusted.split(QLatin1Char('\t')).contains(feed))
        trusted += QLatin1Char('\t') + feed;
    if (!writeFile(catalogue + QStringLiteral(".minisig"), secret.sign(message, trusted)))
        return fail(QStringLiteral("cannot write %1.minisig").arg(catalogue));
    std::printf("signed %s: %s.minisig\n", qPrintable(catalogue), qPrintable(catalogue));
    return Success;
}

int verify(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral(
        "Checks CATALOGUE.minisig for CATALOGUE with a public key (its base64 line, or a "
        "minisign.pub file), as the client does. Exit 0 when it verifies, 1 when not."));
    const QCommandLineOption key(QStringLiteral("key"), "The public key: base64 line or .pub file.",
                                 "KEY");
    p.addOption(key);
    int code = Usage;
    if (!parse(p, args, {"CATALOGUE"}, &code))
        return code;
    if (!p.isSet(key))
        return fail(QStringLiteral("verify needs --key PUBLIC_KEY"), Usage);
    QString keyText = p.value(key);
    QByteArray keyFile;
    if (QFileInfo(keyText).isFile() && readFile(keyText, &keyFile, 4096))
        keyText = QString::fromLatin1(keyFile);
    const qv::MinisignKey publicKey = qv::MinisignKey::fromText(keyText);
    if (!publicKey.isValid())
        return fail(QStringLiteral("%1 is not a minisign public key").arg(p.value(key)), Usage);
    const QString catalogue = p.positionalArguments().at(0);
    QByteArray message, signature;
    if (!readFile(catalogue, &message, qv::XmlLimits().maxBytes))
        return fail(QStringLiteral("cannot read %1").arg(catalogue));
    if (!readFile(catalogue + QStringLiteral(".minisig"), &signature,
                  qv::Minisign::maxSignatureSize))
        return fail(QStringLiteral("cannot read %1.minisig").arg(catalogue));
    const qv::Minisign::Verification v = qv::Minisign::verify(message, signature, {publicKey});
    if (v.result != qv::Minisign::Valid)
        return fail(QStringLiteral("%1: %2").arg(catalogue, qv::Minisign::describe(v.result)));
    std::printf("signature verified (key %s); trusted comment: %s\n", qPrintable(v.keyId),
                qPrintable(v.trustedComment));
    return Success;
}

// A public key given as its base64 line or as a minisign.pub file.
QString keyText(const QString &value)
{
    QByteArray file;
    return QFileInfo(value).isFile() && readFile(value, &file, 4096) ? QString::fromLatin1(file)
                                                                     : value;
}

// Fetches a URL the way a check does (redirects followed), for lint. An answer larger than any
// catalogue is not read to its end.
bool fetch(const QUrl &url, QByteArray *body, QString *error)
{
    const qint64 limit = qv::XmlLimits().maxBytes;
    QNetworkAccessManager manager;
    manager.setProxy(QNetworkProxy::NoProxy);
    QNetworkRequest request(url);
    request.setTransferTimeout(15000);
    QNetworkReply *reply = manager.get(request);
    bool tooLarge = false;
    QObject::connect(reply, &QNetworkReply::readyRead, reply, [&] {
        if (body->size() + reply->bytesAvailable() > limit) {
            tooLarge = true;
            reply->abort();
            return;
        }
        body->append(reply->readAll());
    });
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    reply->deleteLater();
    if (tooLarge) {
        *error = QStringLiteral("the answer is larger than %1 bytes, which no client reads; it was "
                                "not read to its end")
                     .arg(limit);
        return false;
    }
    if (reply->error() != QNetworkReply::NoError) {
        *error = reply->errorString();
        return false;
    }
    body->append(reply->readAll());
    return true;
}

int lint(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral(
        "Lists what the client would refuse or misread in a catalogue, one line per finding with "
        "its line number. Exit 0 clean, 1 warnings only, 2 errors."));
    int code = Usage;
    if (!parse(p, args, {"CATALOGUE|URL"}, &code))
        return code;
    const QString source = p.positionalArguments().at(0);
    QByteArray xml;
    QString why;
    const QUrl url(source);
    if (url.scheme() == u"http" || url.scheme() == u"https") {
        if (!fetch(url, &xml, &why))
            return fail(QStringLiteral("%1: %2").arg(source, why));
    } else if (!readFile(source, &xml, qv::XmlLimits().maxBytes + 1)) {
        return fail(QStringLiteral("cannot read %1").arg(source));
    }
    int errors = 0, warnings = 0;
    const auto say = [&](int line, bool error, const QString &text) {
        std::printf("%s:%d: %s: %s\n", qPrintable(source), line, error ? "error" : "warning",
                    qPrintable(text));
        ++(error ? errors : warnings);
    };
    QBuffer buffer(&xml);
    buffer.open(QIODevice::ReadOnly);
    QDomDocument doc;
    try {
        qv::XmlUtils::parseXml(&buffer, &doc);
    } catch (const qv::ExceptionQt &e) {
        say(0, true, QStringLiteral("the client refuses this document: %1").arg(e.message()));
        return 2;
    }
    const QDomElement root = doc.documentElement();
    const int rootLine = root.lineNumber();
    bool serialOk = false;
    root.attribute(qv::DownloadManager::SERIAL).toLongLong(&serialOk);
    if (!serialOk)
        say(rootLine, false,
            QStringLiteral("no readable \"serial\": a client with trusted keys refuses it"));
    const QDateTime expires
        = qv::DownloadManager::parseReleaseDate(root.attribute(qv::DownloadManager::EXPIRES));
    if (!expires.isValid())
        say(rootLine, false,
            QStringLiteral("no readable \"expires\": a client with trusted keys refuses it"));
    else if (expires < QDateTime::currentDateTime())
        say(rootLine, true,
            QStringLiteral("expired on %1").arg(root.attribute(qv::DownloadManager::EXPIRES)));

    QList<QDomElement> elements {root};
    for (qsizetype i = 0; i < elements.size(); ++i) {
        for (QDomElement c = elements.at(i).firstChildElement(); !c.isNull();
             c = c.nextSiblingElement())
            elements << c;
    }
    for (const QDomElement &e : std::as_const(elements)) {
        if (e.hasAttribute(qv::DownloadManager::BASE_URL)
            && !e.attribute(qv::DownloadManager::BASE_URL).isEmpty()
            && !e.attribute(qv::DownloadManager::BASE_URL).endsWith(QLatin1Char('/')))
            say(e.lineNumber(), false,
                QStringLiteral(
                    "base-url \"%1\" does not end in \"/\": it is joined to the url without one")
                    .arg(e.attribute(qv::DownloadManager::BASE_URL)));
    }

    static const QStringList offeredTypes {"tar.gz", "rpm", "deb", "tar.bz2"};
    QHash<QString, int> identities;
    QStringList models;
    const QDomNodeList packages = doc.elementsByTagName(qv::DownloadManager::PACKAGE);
    for (int i = 0; i < packages.size(); ++i) {
        const QDomElement e = packages.at(i).toElement();
        qv::PackageInfo info;
        qv::DownloadManager::parsePackage(e, info);
        const int line = e.lineNumber();
        const QString what = QStringLiteral("package %1 %2").arg(info.name, info.release);
        if (info.sha256.isEmpty())
            say(line, false,
                what
                    + QStringLiteral(": no sha256, so a client with trusted keys never offers it"));
        else if (!QRegularExpression(QStringLiteral("^[0-9a-f]{64}$"))
                      .match(info.sha256)
                      .hasMatch())
            say(line, true, what + QStringLiteral(": sha256 is not 64 hex digits"));
        const QString sizeText = qv::DownloadManager::findString(e, qv::DownloadManager::FILE_SIZE);
        if (info.fileSize <= 0)
            say(line, true,
                what
                    + QStringLiteral(
                          ": file-size \"%1\" reads as %2: the download never reports an outcome")
                          .arg(sizeText)
                          .arg(info.fileSize));
        const QString dateText
            = qv::DownloadManager::findString(e, qv::DownloadManager::RELEASE_DATE);
        if (!info.releaseDate.isValid())
            say(line, false,
                what + QStringLiteral(": release-date \"%1\" reads as no date").arg(dateText));
        if (info.name.isEmpty() || info.release.isEmpty() || info.type.isEmpty())
            say(line, true, what + QStringLiteral(": name, release or type reads as empty"));
        if (info.suffix.size() < 3 || info.suffix.size() > 7)
            say(line, false,
                what + QStringLiteral(": suspicious file type \"%1\"").arg(info.suffix));
        if (info.type == u"Application" && !offeredTypes.contains(info.suffix))
            say(line, false,
                what
                    + QStringLiteral(
                          ": the client never offers an application package of type \"%1\"")
                          .arg(info.suffix));
        if (info.type == u"Camera Firmware")
            models << info.name;
        const QString id = info.stringID();
        if (identities.contains(id))
            say(line, false,
                what
                    + QStringLiteral(": same identity (date and size) as the package on line %1; "
                                     "one of them is dropped")
                          .arg(identities.value(id)));
        else
            identities.insert(id, line);
    }
    models.removeDuplicates();
    for (const QString &a : std::as_const(models)) {
        for (const QString &b : std::as_const(models)) {
            if (a != b && b.startsWith(a))
                say(rootLine, false,
                    QStringLiteral("camera model \"%1\" is a prefix of \"%2\": a %1 camera may be "
                                   "offered %2 firmware")
                        .arg(a, b));
        }
    }
    std::printf("%s: %d error(s), %d warning(s)\n", qPrintable(source), errors, warnings);
    return errors ? 2 : warnings ? 1 : 0;
}

int serve(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral(
        "Serves DIR (catalogue, signature, packages) on 127.0.0.1 for development."));
    const QCommandLineOption port(QStringLiteral("port"),
                                  QStringLiteral("The port (default 8080)."), QStringLiteral("N"),
                                  QStringLiteral("8080"));
    p.addOption(port);
    int code = Usage;
    if (!parse(p, args, {"DIR"}, &code))
        return code;
    StaticServer server(p.positionalArguments().at(0));
    if (!server.listen(QHostAddress::LocalHost, quint16(p.value(port).toUInt())))
        return fail(QStringLiteral("cannot listen on 127.0.0.1:%1: %2")
                        .arg(p.value(port), server.errorString()));
    std::printf("serving %s on http://127.0.0.1:%d/\n"
                "note: clients download packages from port 80 of the package URL's host, "
                "whatever port the URL names; serve packages on port 80 (or through a proxy).\n",
                qPrintable(p.positionalArguments().at(0)), server.serverPort());
    std::fflush(stdout);
    return QCoreApplication::exec();
}

int offer(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral(
        "Runs the client's request, verification and selection and prints the packages the user "
        "would be offered. Exit 0 nothing to offer, 10 updates available, 1 error."));
    const QCommandLineOption server(QStringLiteral("server"), QStringLiteral("The catalogue URL."),
                                    QStringLiteral("URL"));
    const QCommandLineOption file(QStringLiteral("file"),
                                  QStringLiteral("A catalogue file (its .minisig beside it)."),
                                  QStringLiteral("CATALOGUE"));
    const QCommandLineOption app(QStringLiteral("app"), QStringLiteral("The application name."),
                                 QStringLiteral("NAME"));
    const QCommandLineOption version(QStringLiteral("version"),
                                     QStringLiteral("The installed version."), QStringLiteral("V"));
    const QCommandLineOption platform(QStringLiteral("platform"),
                                      QStringLiteral("A supported platform (repeatable)."),
                                      QStringLiteral("P"));
    const QCommandLineOption camera(QStringLiteral("camera"),
                                    QStringLiteral("MODEL=VERSION (repeatable)."),
                                    QStringLiteral("MODEL=VERSION"));
    const QCommandLineOption beta(QStringLiteral("beta"), QStringLiteral("Include beta releases."));
    const QCommandLineOption language(QStringLiteral("language"),
                                      QStringLiteral("The user's language (de, fr, en, ...)."),
                                      QStringLiteral("L"));
    const QCommandLineOption keys(QStringLiteral("keys"),
                                  QStringLiteral("A trusted public key (repeatable)."),
                                  QStringLiteral("PUBLIC_KEY"));
    p.addOptions({server, file, app, version, platform, camera, beta, language, keys});
    int code = Usage;
    if (!parse(p, args, {}, &code))
        return code;
    if (p.isSet(server) == p.isSet(file) || !p.isSet(app) || !p.isSet(version))
        return fail(QStringLiteral("offer needs --server or --file, --app and --version"), Usage);

    // The user's real settings are never touched: a store of its own for this run.
    QTemporaryDir settings;
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settings.path());
    qv::SoftwareUpdateClient::sSoftUpQSettingsFormat = QSettings::IniFormat;
    QCoreApplication::setOrganizationName(QStringLiteral("softupdate-offer"));
    QCoreApplication::setApplicationName(p.value(app));

    QString url = p.value(server);
    std::unique_ptr<StaticServer> local;
    if (p.isSet(file)) {
        const QFileInfo info(p.value(file));
        local.reset(new StaticServer(info.absolutePath()));
        if (!info.isFile() || !local->listen(QHostAddress::LocalHost))
            return fail(QStringLiteral("cannot serve %1").arg(p.value(file)));
        url = QStringLiteral("http://127.0.0.1:%1/%2")
                  .arg(local->serverPort())
                  .arg(info.fileName());
    }
    QSettings store(QSettings::IniFormat, QSettings::UserScope,
                    QCoreApplication::organizationName(), p.value(app));
    store.setValue(QStringLiteral("serverURL"), url);
    store.setValue(QStringLiteral("checkForBeta"), p.isSet(beta));
    store.sync();
    qv::SoftwareUpdateClient client(p.value(app), qv::VersionNumber::fromText(p.value(version)),
                                    url, nullptr);
    client.setInteractive(false);
    QStringList trusted;
    for (const QString &k : p.values(keys))
        trusted << keyText(k);
    client.setTrustedKeys(trusted);
    SoftUpCurrentCameraVersions cameras;
    for (const QString &c : p.values(camera))
        cameras << qMakePair(c.section(QLatin1Char('='), 0, 0),
                             qv::VersionNumber::fromText(c.section(QLatin1Char('='), 1)));
    if (!cameras.isEmpty())
        client.setCurrentCameraVersions(cameras);
    if (p.isSet(platform))
        store.setValue(QStringLiteral("supportedPlatforms"),
                       p.values(platform).join(QLatin1Char(',')));
    store.sync();

    int result = Failure;
    QEventLoop loop;
    QObject::connect(&client, &qv::SoftwareUpdateClient::upToDate, &loop, [&] {
        std::printf("nothing to offer\n");
        result = Success;
        loop.quit();
    });
    QObject::connect(&client, &qv::SoftwareUpdateClient::checkFailed, &loop,
                     [&](const QString &reason) {
                         std::fprintf(stderr, "softupdate: %s\n", qPrintable(reason));
                         result = Failure;
                         loop.quit();
                     });
    QObject::connect(&client, &qv::SoftwareUpdateClient::updatesAvailable, &loop, [&] {
        result = 10;
        loop.quit();
    });
    QTimer::singleShot(0, &client, [&client] { client.checkForUpdate(0); });
    loop.exec();
    if (result != 10)
        return result;
    // The rows of the list the user would see, as that list shows them.
    const QList<int> hidden = qv::PackageTable::foreignLanguageRows(
        client.packageList(), QLocale::system().name().section(QLatin1Char('_'), 0, 0));
    const QList<QStringList> rows = qv::PackageTable::rows(client.packageList());
    for (int r = 0; r < rows.size(); ++r)
        std::printf("%s%s\n", qPrintable(rows.at(r).join(QStringLiteral(" | "))),
                    hidden.contains(r) ? " (hidden: another language)" : "");
    return 10;
}

const char kUsage[]
    = "usage: softupdate add|sign|verify|lint|offer|serve ... (softupdate <command> --help)\n";

} // namespace

int main(int argc, char **argv)
{
    // offer runs the client's check without any window: no GUI application object takes options
    // such as -platform for itself.
    const bool offering = argc > 1 && qstrcmp(argv[1], "offer") == 0;
    for (int i = 2; offering && i + 1 < argc; ++i) {
        if (qstrcmp(argv[i], "--language")
            == 0) // the client reads the user's language from the locale
            qputenv("LC_ALL", QByteArray(argv[i + 1]) + ".UTF-8");
    }
    QCoreApplication app(argc, argv);
    QStringList args = QCoreApplication::arguments();
    const QString command = args.value(1);
    if (args.size() > 1)
        args.removeAt(1); // the subcommand's parser sees the program name, then its own arguments
    if (command == u"add")
        return add(args);
    if (command == u"sign")
        return sign(args);
    if (command == u"verify")
        return verify(args);
    if (command == u"lint")
        return lint(args);
    if (command == u"offer")
        return offer(args);
    if (command == u"serve")
        return serve(args);
    if (command == u"--help" || command == u"-h") {
        std::printf("%s", kUsage);
        return Success;
    }
    std::fprintf(stderr, "%s", kUsage);
    return Usage;
}
