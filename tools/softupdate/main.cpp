// softupdate: the publisher's side of the update catalogue.
//
//   softupdate add CATALOGUE FILE --type T --name N --release R [options]
//   softupdate sign CATALOGUE --key SECRET_KEY_FILE [--trusted-comment TEXT]
//   softupdate verify CATALOGUE --key PUBLIC_KEY
//
// Every value the client reads from a package is filled from the file itself (size, date, hash),
// and signatures are minisign's, so either tool verifies the other's.

#include "Signing.h"

#include <DownloadManager.h>
#include <qv/Exceptions.h>
#include <qv/Minisign.h>
#include <qv/Sha256.h>
#include <qv/XmlUtils.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDomDocument>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QTextStream>

#include <cstdio>
#include <memory>

namespace {

enum ExitCode { Success = 0, Failure = 1, Usage = 2 };

int fail(const QString &message, int code = Failure)
{
    std::fprintf(stderr, "softupdate: %s\n", qPrintable(message));
    return code;
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
    e.setAttribute(qv::DownloadManager::URL, info.fileName());
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
        "comes from SOFTUPDATE_PASSWORD, else from the first line of standard input)."));
    const QCommandLineOption key(QStringLiteral("key"), "The minisign secret key file.", "FILE");
    const QCommandLineOption comment(QStringLiteral("trusted-comment"), "The signed comment.",
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
        QTextStream in(stdin);
        password = in.readLine().toUtf8();
        secret = SecretKey::load(p.value(key), password);
    }
    if (!secret.isValid())
        return fail(secret.error());
    const QString trusted = p.isSet(comment) ? p.value(comment)
                                             : QStringLiteral("timestamp:%1\tfile:%2\thashed")
                                                   .arg(QDateTime::currentSecsSinceEpoch())
                                                   .arg(QFileInfo(catalogue).fileName());
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

const char kUsage[] = "usage: softupdate add|sign|verify ... (softupdate <command> --help)\n";

} // namespace

int main(int argc, char **argv)
{
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
    if (command == u"--help" || command == u"-h") {
        std::printf("%s", kUsage);
        return Success;
    }
    std::fprintf(stderr, "%s", kUsage);
    return Usage;
}
