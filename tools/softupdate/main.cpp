// softupdate: the publisher's side of the update catalogue.
//
//   softupdate add CATALOGUE FILE --type T --name N --release R [options]
//   softupdate sign CATALOGUE --key SECRET_KEY_FILE [--trusted-comment TEXT]
//   softupdate verify CATALOGUE --key PUBLIC_KEY
//   softupdate lint CATALOGUE|URL [--key PUBLIC_KEY] [--previous URL|FILE] [--install-mode M]
//   softupdate offer (--server URL | --file CATALOGUE) --app NAME --version V [options]
//   softupdate serve DIR [--port N]
//
// Every value the client reads from a package is filled from the file itself (size, date, hash),
// and signatures are minisign's, so either tool verifies the other's.

#include "CatalogueText.h"
#include "DeltaWriter.h"
#include "Signing.h"
#include "StaticServer.h"

#include <DownloadManager.h>
#include <PackageTable.h>
#include <PackageTypes.h>
#include <SoftwareUpdateClient.h>
#include <qv/DeltaPackage.h>
#include <qv/Exceptions.h>
#include <qv/Minisign.h>
#include <qv/Sha256.h>
#include <qv/StringUtils.h>
#include <qv/VersionNumber.h>
#include <qv/XmlUtils.h>

#include <QBuffer>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QDomDocument>
#include <QElapsedTimer>
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
#include <QStandardPaths>
#include <QStringDecoder>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <memory>

#include <termios.h>
#include <unistd.h>

namespace {

// The exit codes of every command (sysexits' EX_USAGE for usage errors).
enum ExitCode {
    Success = 0, ///< clean
    Warnings = 1, ///< lint: warnings only
    Errors = 2, ///< errors in the catalogue or its signature
    CannotRead = 3, ///< a file, URL or signature that cannot be read (or written)
    Offered = 10, ///< offer: updates available
    Usage = 64, ///< a command line that is wrong
};

int fail(const QString &message, int code)
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

// The exit codes a command's --help lists after its description.
QString withExitCodes(const QString &description, const QString &codes)
{
    return description + QStringLiteral("\n\nExit codes: ") + codes
        + QStringLiteral(", 64 usage error.");
}

// Parses the options of one subcommand; `positional` names its arguments for the help text.
// With `more`, further positional arguments are allowed after those.
bool parse(QCommandLineParser &parser, const QStringList &args, const QStringList &positional,
           int *exitCode, bool more = false)
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
    if (parser.positionalArguments().size() != positional.size()
        && !(more && parser.positionalArguments().size() > positional.size())) {
        *exitCode
            = fail(QStringLiteral("expected %1; see --help").arg(positional.join(' ')), Usage);
        return false;
    }
    return true;
}

// The serial a publication gets: above the previous one, and never below the current UTC time
// as yyyymmddHHMMSS, so that a catalogue rebuilt from scratch still rises.
qint64 nextSerial(qint64 previous)
{
    const qint64 now
        = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMddHHmmss")).toLongLong();
    return qMax(previous + 1, now);
}

// A date in the documented forms ("yyyy-MM-dd" or "yyyy-MM-dd hh:mm:ss") that lies ahead.
bool futureDate(const QString &text)
{
    static const QRegularExpression form(
        QStringLiteral("^\\d{4}-\\d{2}-\\d{2}( \\d{2}:\\d{2}:\\d{2})?$"));
    const QDateTime when = qv::DownloadManager::parseReleaseDate(text);
    return form.match(text).hasMatch() && when.isValid() && when > QDateTime::currentDateTime();
}

// The options with which add and sign stamp a catalogue: its serial and its expiry.
struct Stamp {
    QCommandLineOption serial {QStringLiteral("serial"),
                               QStringLiteral("The serial to publish, above the catalogue's own "
                                              "(default: the larger of that + 1 and the UTC time "
                                              "as yyyymmddHHMMSS)."),
                               QStringLiteral("N")};
    QCommandLineOption expires {QStringLiteral("expires"),
                                QStringLiteral("The expiry, a future date (yyyy-MM-dd or "
                                               "\"yyyy-MM-dd hh:mm:ss\"); default: renewed "
                                               "by --lifetime."),
                                QStringLiteral("DATE")};
    QCommandLineOption lifetime {QStringLiteral("lifetime"),
                                 QStringLiteral("Days until the catalogue expires, counted from "
                                                "now (default 90)."),
                                 QStringLiteral("DAYS"), QStringLiteral("90")};

    void addTo(QCommandLineParser &p) const { p.addOptions({serial, expires, lifetime}); }
    // Usage or Success; the values are checked before anything is read or written.
    int check(const QCommandLineParser &p) const
    {
        bool ok = true;
        if (p.isSet(serial) && (p.value(serial).toLongLong(&ok) <= 0 || !ok))
            return fail(
                QStringLiteral("--serial takes a positive number, not \"%1\"").arg(p.value(serial)),
                Usage);
        const int days = p.value(lifetime).toInt(&ok);
        if (!ok || days < 1 || days > 3650)
            return fail(QStringLiteral("--lifetime takes 1 to 3650 days, not \"%1\"")
                            .arg(p.value(lifetime)),
                        Usage);
        if (p.isSet(expires) && !futureDate(p.value(expires)))
            return fail(QStringLiteral("--expires takes a future date as yyyy-MM-dd or "
                                       "\"yyyy-MM-dd hh:mm:ss\", not \"%1\"")
                            .arg(p.value(expires)),
                        Usage);
        return Success;
    }
    // Sets the serial and the expiry; Usage when --serial is not above the catalogue's.
    int apply(const QCommandLineParser &p, CatalogueText &catalogue, QString *said) const
    {
        const qint64 previous
            = qMax<qint64>(0, catalogue.rootAttribute(qv::DownloadManager::SERIAL).toLongLong());
        qint64 next = nextSerial(previous);
        if (p.isSet(serial)) {
            next = p.value(serial).toLongLong();
            if (next <= previous)
                return fail(QStringLiteral("--serial %1 is not above the catalogue's serial %2: "
                                           "a client that saw %2 would refuse it")
                                .arg(next)
                                .arg(previous),
                            Usage);
        }
        const QString expiry = p.isSet(expires)
            ? p.value(expires)
            : QDate::currentDate().addDays(p.value(lifetime).toInt()).toString(Qt::ISODate);
        catalogue.setRootAttribute(qv::DownloadManager::SERIAL, QString::number(next));
        catalogue.setRootAttribute(qv::DownloadManager::EXPIRES, expiry);
        *said = QStringLiteral("serial %1, expires %2").arg(next).arg(expiry);
        return Success;
    }
};

// Why `data` is no text file (a NUL byte, or no UTF-8); empty for text.
QString binaryData(const QByteArray &data)
{
    const qsizetype nul = data.indexOf('\0');
    if (nul >= 0)
        return QStringLiteral("binary data at byte %1").arg(nul);
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    (void)utf8.decode(data);
    return utf8.hasError() ? QStringLiteral("bytes that are no UTF-8") : QString();
}

// Reads a catalogue file the client can parse into `catalogue`; an exit code on failure.
int readCatalogue(const QString &path, CatalogueText *catalogue)
{
    QByteArray xml;
    if (!readFile(path, &xml, qv::XmlLimits().maxBytes))
        return fail(QStringLiteral("cannot read %1 (or it is larger than any catalogue)").arg(path),
                    CannotRead);
    if (const QString binary = binaryData(xml); !binary.isEmpty())
        return fail(QStringLiteral("%1 is not a text file (%2): not a catalogue").arg(path, binary),
                    Errors);
    QBuffer buffer(&xml);
    buffer.open(QIODevice::ReadOnly);
    QDomDocument doc;
    QString why;
    try {
        qv::XmlUtils::parseXml(&buffer, &doc);
    } catch (const qv::ExceptionQt &e) {
        return fail(
            QStringLiteral("%1 is not a catalogue the client reads: %2").arg(path, e.message()),
            Errors);
    }
    if (!catalogue->read(QString::fromUtf8(xml), &why))
        return fail(QStringLiteral("%1 is not a catalogue: %2").arg(path, why), Errors);
    return Success;
}

// The package a catalogue element (as text) describes, as the client reads it.
qv::PackageInfo packageOf(const QString &element)
{
    QDomDocument doc;
    qv::PackageInfo info;
    if (doc.setContent(element))
        qv::DownloadManager::parsePackage(doc.documentElement(), info);
    return info;
}

QString attribute(const QString &name, const QString &value)
{
    return QStringLiteral(" %1=\"%2\"").arg(name, value.toHtmlEscaped());
}

int deltaElement(const CatalogueText &catalogue, QString old, const QString &file,
                 const QString &release, QString *element);

int add(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(withExitCodes(
        QStringLiteral("Adds one package to CATALOGUE (creating it if needed): size, release "
                       "date, URL and sha256 come from FILE; a package of the same URL is "
                       "replaced. The serial rises and the expiry is renewed; the rest of the "
                       "document stays as it is. Sign the catalogue again afterwards."),
        QStringLiteral("0 added, 2 the catalogue cannot be read as one, 3 a file cannot be "
                       "read or written")));
    const QCommandLineOption type(QStringLiteral("type"), "\"Application\" or \"Camera Firmware\".",
                                  "T");
    const QCommandLineOption name(QStringLiteral("name"), "The product or camera model.", "N");
    const QCommandLineOption release(QStringLiteral("release"),
                                     "The version, numbers and dots, e.g. 2.10.1.", "R");
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
    const QCommandLineOption deltaFrom(
        QStringLiteral("delta-from"),
        "An older package of the catalogue (repeatable; OLD=RELEASE when the catalogue no longer "
        "lists it): a delta from it is written beside FILE and listed, unless it is larger than "
        "half of FILE.",
        "OLD");
    const Stamp stamp;
    p.addOptions({type, name, release, publicName, publicRelease, status, platform, language, notes,
                  baseUrl, deltaFrom});
    stamp.addTo(p);
    int code = Usage;
    if (!parse(p, args, {"CATALOGUE", "FILE"}, &code, true))
        return code;
    // --delta-from OLD takes further packages after FILE too: --delta-from a.zip b.zip.
    QStringList olds = p.values(deltaFrom);
    olds += p.positionalArguments().mid(2);
    if (p.positionalArguments().size() > 2 && !p.isSet(deltaFrom))
        return fail(QStringLiteral("expected CATALOGUE FILE; see --help"), Usage);
    if (!p.isSet(type) || !p.isSet(name) || !p.isSet(release))
        return fail(QStringLiteral("add needs --type, --name and --release"), Usage);
    if (p.value(type) != u"Application" && p.value(type) != u"Camera Firmware")
        return fail(QStringLiteral("--type is \"Application\" or \"Camera Firmware\""), Usage);
    static const QRegularExpression version(QStringLiteral("^\\d{1,9}(\\.\\d{1,9}){0,7}$"));
    if (!version.match(p.value(release)).hasMatch())
        return fail(QStringLiteral("--release \"%1\" is not a version the client can compare: "
                                   "numbers and dots, e.g. 2.10.1")
                        .arg(p.value(release)),
                    Usage);
    if (p.value(status) != u"STABLE" && p.value(status) != u"BETA")
        return fail(QStringLiteral("--status is STABLE or BETA, not \"%1\"").arg(p.value(status)),
                    Usage);
    for (const QString &note : p.values(notes)) {
        if (note.indexOf(QLatin1Char('=')) <= 0)
            return fail(QStringLiteral("--release-notes takes LANG=URL, not %1").arg(note), Usage);
    }
    if (const int checked = stamp.check(p); checked != Success)
        return checked;
    const QString path = p.positionalArguments().at(0);
    const QString file = p.positionalArguments().at(1);
    const QString fileName = QFileInfo(file).fileName();
    static const QRegularExpression control(QStringLiteral("[\\x00-\\x1f\\x7f]"));
    if (control.match(fileName).hasMatch())
        return fail(QStringLiteral("the file name %1 holds a control character; rename the file")
                        .arg(QString::fromLatin1(QUrl::toPercentEncoding(fileName))),
                    Usage);

    CatalogueText catalogue;
    if (QFileInfo::exists(path)) {
        if (const int read = readCatalogue(path, &catalogue); read != Success)
            return read;
    }
    QFile package(file);
    if (!package.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("cannot read %1").arg(file), CannotRead);
    qv::Sha256 hash;
    while (!package.atEnd())
        hash.addData(package.read(1 << 20));
    const QFileInfo info(file);

    // Every package gets the values the client needs; none is typed by hand.
    using DM = qv::DownloadManager;
    QString element = QLatin1Char('<') + DM::PACKAGE + attribute(DM::TYPE, p.value(type))
        + attribute(DM::NAME, p.value(name)) + attribute(DM::RELEASE_VERSION, p.value(release));
    if (p.isSet(publicName))
        element += attribute(DM::NAME_PUBLIC, p.value(publicName));
    if (p.isSet(publicRelease))
        element += attribute(DM::RELEASE_VERSION_PUBLIC, p.value(publicRelease));
    element += attribute(DM::RELEASE_STATUS, p.value(status))
        + attribute(DM::RELEASE_DATE,
                    info.lastModified().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")))
        + attribute(DM::FILE_SIZE, QString::number(info.size()));
    if (p.isSet(baseUrl))
        element += attribute(DM::BASE_URL, p.value(baseUrl));
    // The name is one path segment of a URL: "#", "?", "%" and blanks are encoded.
    element += attribute(DM::URL, QString::fromLatin1(QUrl::toPercentEncoding(fileName)))
        + attribute(DM::SHA256, QString::fromLatin1(hash.result().toHex()));
    if (p.isSet(platform))
        element += attribute(DM::PLATFORM, p.values(platform).join(QLatin1Char(',')));
    if (p.isSet(language))
        element += attribute(DM::LANGUAGE, p.values(language).join(QLatin1Char(',')));
    QStringList children;
    for (const QString &note : p.values(notes)) {
        const qsizetype eq = note.indexOf(QLatin1Char('='));
        children << QLatin1Char('<') + DM::RELEASE_NOTES + attribute(DM::LANGUAGE, note.left(eq))
                + attribute(DM::URL, note.mid(eq + 1)) + QStringLiteral("/>");
    }
    for (const QString &old : std::as_const(olds)) {
        QString child;
        if (const int made = deltaElement(catalogue, old, file, p.value(release), &child);
            made != Success)
            return made;
        if (!child.isEmpty())
            children << child;
    }
    if (!children.isEmpty()) {
        element += QLatin1Char('>');
        for (const QString &child : std::as_const(children))
            element += QStringLiteral("\n    ") + child;
        element += QStringLiteral("\n  </") + DM::PACKAGE + QLatin1Char('>');
    } else {
        element += QStringLiteral("/>");
    }

    // The same file published again (the same URL) replaces its entry.
    const QUrl url = packageOf(element).url;
    const QStringList existing = catalogue.packages();
    qsizetype replaced = -1;
    for (qsizetype i = 0; i < existing.size() && replaced < 0; ++i) {
        if (packageOf(existing.at(i)).url == url)
            replaced = i;
    }
    catalogue.putPackage(replaced, element);
    QString stamped;
    if (const int applied = stamp.apply(p, catalogue, &stamped); applied != Success)
        return applied;
    if (!writeFile(path, catalogue.text().toUtf8()))
        return fail(QStringLiteral("cannot write %1").arg(path), CannotRead);
    std::printf("%s %s %s (%lld bytes, sha256 %s) %s %s; %s; sign it again\n",
                replaced >= 0 ? "replaced" : "added", qPrintable(p.value(name)),
                qPrintable(p.value(release)), info.size(), hash.result().toHex().constData(),
                replaced >= 0 ? "in" : "to", qPrintable(path), qPrintable(stamped));
    return Success;
}

// The release of `old` as the catalogue lists it ("OLD=RELEASE" names it outright).
QString releaseOf(const CatalogueText &catalogue, QString *old)
{
    const qsizetype eq = old->lastIndexOf(QLatin1Char('='));
    if (eq > 0) {
        const QString release = old->mid(eq + 1);
        old->truncate(eq);
        return release;
    }
    const QString name = QFileInfo(*old).fileName();
    for (const QString &element : catalogue.packages()) {
        const qv::PackageInfo package = packageOf(element);
        if (QFileInfo(package.url.path()).fileName() == name)
            return package.release;
    }
    return QString();
}

// Writes the delta from the package `old` to `file` beside `file`, and the element that lists
// it; nothing when the delta is larger than half of `file`.
int deltaElement(const CatalogueText &catalogue, QString old, const QString &file,
                 const QString &release, QString *element)
{
    const QString from = releaseOf(catalogue, &old);
    if (from.isEmpty())
        return fail(QStringLiteral("the catalogue lists no release for %1; write "
                                   "--delta-from %1=RELEASE")
                        .arg(old),
                    Usage);
    DeltaWriter::Options options;
    options.fromRelease = from;
    options.toRelease = release;
    const QString output = file + QStringLiteral(".from-") + from + QStringLiteral(".delta");
    DeltaWriter::Summary summary;
    QString error;
    if (!DeltaWriter::write(old, file, output, options, &summary, &error))
        return fail(QStringLiteral("no delta from %1: %2").arg(old, error), CannotRead);
    const qint64 full = QFileInfo(file).size();
    if (summary.size * 2 > full) {
        QFile::remove(output);
        std::printf("skipped the delta from %s: %lld bytes, more than half of the package\n",
                    qPrintable(from), summary.size);
        return Success;
    }
    QFile delta(output);
    qv::Sha256 hash;
    if (!delta.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("cannot read %1").arg(output), CannotRead);
    while (!delta.atEnd())
        hash.addData(delta.read(1 << 20));
    using DM = qv::DownloadManager;
    *element = QLatin1Char('<') + DM::DELTA + attribute(DM::FROM_RELEASE, from)
        + attribute(DM::URL,
                    QString::fromLatin1(QUrl::toPercentEncoding(QFileInfo(output).fileName())))
        + attribute(DM::FILE_SIZE, QString::number(summary.size))
        + attribute(DM::SHA256, QString::fromLatin1(hash.result().toHex())) + QStringLiteral("/>");
    std::printf("delta from %s: %s (%lld bytes, %.1f%% of the package)\n", qPrintable(from),
                qPrintable(QFileInfo(output).fileName()), summary.size,
                full > 0 ? 100.0 * double(summary.size) / double(full) : 0.0);
    return Success;
}

int delta(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(withExitCodes(
        QStringLiteral("Writes a delta package that turns the application OLD into NEW (each a "
                       "ZIP or tar.gz package, or a folder), file by file: unchanged and renamed "
                       "files are copied, changed ones patched (zstd or bsdiff, the smaller), new "
                       "ones added."),
        QStringLiteral("0 written, 2 NEW holds what a delta cannot carry (a link pointing "
                       "outside, a file above 1 GiB), 3 a version cannot be read or OUT "
                       "written")));
    const QCommandLineOption output({QStringLiteral("o"), QStringLiteral("output")},
                                    "The delta file to write.", "OUT");
    const QCommandLineOption codec(QStringLiteral("codec"),
                                   "Patches with best (default), zstd or bsdiff.", "C",
                                   QStringLiteral("best"));
    const QCommandLineOption level(QStringLiteral("level"), "zstd's level, 1 to 22 (default 19).",
                                   "N", QStringLiteral("19"));
    const QCommandLineOption from(QStringLiteral("from-release"), "OLD's release, recorded.", "R");
    const QCommandLineOption to(QStringLiteral("to-release"), "NEW's release, recorded.", "R");
    p.addOptions({output, codec, level, from, to});
    int code = Usage;
    if (!parse(p, args, {"OLD", "NEW"}, &code))
        return code;
    static const QStringList codecs {"best", "zstd", "bsdiff"};
    bool levelRead = false;
    DeltaWriter::Options options;
    options.level = p.value(level).toInt(&levelRead);
    if (!p.isSet(output) || !codecs.contains(p.value(codec)) || !levelRead || options.level < 1
        || options.level > 22)
        return fail(QStringLiteral("delta needs -o OUT, --codec best|zstd|bsdiff and --level 1 to "
                                   "22"),
                    Usage);
    options.codecs = DeltaWriter::Codecs(codecs.indexOf(p.value(codec)));
    if (options.codecs == DeltaWriter::Codecs::Bsdiff
        && QStandardPaths::findExecutable(QStringLiteral("bsdiff")).isEmpty())
        return fail(QStringLiteral("--codec bsdiff needs the bsdiff program"), Usage);
    options.fromRelease = p.value(from);
    options.toRelease = p.value(to);
    const QString oldPath = p.positionalArguments().at(0);
    const QString newPath = p.positionalArguments().at(1);
    for (const QString &path : {oldPath, newPath}) {
        if (!QFileInfo::exists(path))
            return fail(QStringLiteral("cannot read %1").arg(path), CannotRead);
    }
    DeltaWriter::Summary summary;
    QString error;
    if (!DeltaWriter::write(oldPath, newPath, p.value(output), options, &summary, &error))
        return fail(error, error.contains(QLatin1String("cannot")) ? CannotRead : Errors);
    std::printf("%s: %lld bytes; %d copied, %d patched (zstd %d, bsdiff %d), %d added, %d links, "
                "%d deleted\n",
                qPrintable(p.value(output)), summary.size, summary.copied,
                summary.zstdPatches + summary.bsdiffPatches, summary.zstdPatches,
                summary.bsdiffPatches, summary.added, summary.links, summary.deleted);
    return Success;
}

int apply(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(withExitCodes(
        QStringLiteral("Builds the new version from the installed FOLDER and DELTA into OUT (a "
                       "folder that must not exist), as the client does: every source and every "
                       "result is checked against the delta's manifest."),
        QStringLiteral("0 built, 2 the delta does not apply to FOLDER, 3 a file cannot be read "
                       "or OUT created")));
    const QCommandLineOption output({QStringLiteral("o"), QStringLiteral("output")},
                                    "The folder to build.", "OUT");
    p.addOption(output);
    int code = Usage;
    if (!parse(p, args, {"DELTA", "FOLDER"}, &code))
        return code;
    if (!p.isSet(output))
        return fail(QStringLiteral("apply needs -o OUT"), Usage);
    const QString out = p.value(output);
    if (QFileInfo::exists(out) || !QDir().mkpath(out))
        return fail(QStringLiteral("cannot create %1 (it must not exist)").arg(out), CannotRead);
    QString error;
    QElapsedTimer clock;
    clock.start();
    if (!qv::DeltaPackage::apply(p.positionalArguments().at(0), p.positionalArguments().at(1), out,
                                 &error)) {
        QDir(out).removeRecursively();
        return fail(error, error.startsWith(QLatin1String("cannot")) ? CannotRead : Errors);
    }
    std::printf("built %s in %lld ms; codecs' heap peak %lld bytes\n", qPrintable(out),
                clock.elapsed(), qv::DeltaPackage::codecHeapPeak());
    return Success;
}

int sign(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(withExitCodes(
        QStringLiteral(
            "Raises the serial of CATALOGUE, renews its expiry, and writes CATALOGUE.minisig with "
            "a minisign secret key (the password of an encrypted key comes from "
            "SOFTUPDATE_PASSWORD, else it is asked for on the terminal without echo, or read from "
            "the first line of standard input when that is no terminal)."),
        QStringLiteral("0 signed, 2 the catalogue cannot be read as one, 3 a file or the key "
                       "cannot be read or written")));
    const QCommandLineOption key(QStringLiteral("key"), "The minisign secret key file.", "FILE");
    const QCommandLineOption comment(
        QStringLiteral("trusted-comment"),
        "The signed comment; \"<TAB>file:<catalogue name>\" is added when missing, as clients "
        "accept a catalogue only for the feed it was signed as.",
        "TEXT");
    const Stamp stamp;
    p.addOptions({key, comment});
    stamp.addTo(p);
    int code = Usage;
    if (!parse(p, args, {"CATALOGUE"}, &code))
        return code;
    if (!p.isSet(key))
        return fail(QStringLiteral("sign needs --key SECRET_KEY_FILE"), Usage);
    if (const int checked = stamp.check(p); checked != Success)
        return checked;
    const QString path = p.positionalArguments().at(0);
    CatalogueText catalogue;
    if (const int read = readCatalogue(path, &catalogue); read != Success)
        return read;
    QByteArray password = qgetenv("SOFTUPDATE_PASSWORD");
    SecretKey secret = SecretKey::load(p.value(key), password);
    if (!secret.isValid() && secret.isEncrypted() && password.isEmpty()) {
        password = readPassword(QStringLiteral("Password for %1: ").arg(p.value(key)));
        secret = SecretKey::load(p.value(key), password);
    }
    if (!secret.isValid())
        return fail(secret.error(), CannotRead);
    QString stamped;
    if (const int applied = stamp.apply(p, catalogue, &stamped); applied != Success)
        return applied;
    const QByteArray message = catalogue.text().toUtf8();
    // Clients accept a catalogue only for the feed its signature names ("file:"), as minisign
    // writes it; a comment of the publisher's own keeps that field.
    const QString feed = QStringLiteral("file:") + QFileInfo(path).fileName();
    QString trusted = p.isSet(comment) ? p.value(comment)
                                       : QStringLiteral("timestamp:%1\t%2\thashed")
                                             .arg(QDateTime::currentSecsSinceEpoch())
                                             .arg(feed);
    if (!trusted.split(QLatin1Char('\t')).contains(feed))
        trusted += QLatin1Char('\t') + feed;
    if (!writeFile(path, message)
        || !writeFile(path + QStringLiteral(".minisig"), secret.sign(message, trusted)))
        return fail(QStringLiteral("cannot write %1 and its .minisig").arg(path), CannotRead);
    std::printf("signed %s (%s): %s.minisig\n", qPrintable(path), qPrintable(stamped),
                qPrintable(path));
    return Success;
}

// What a signature says about `message` for a publisher: empty when it verifies for the feed
// `feedName`, else why not. Malformed signatures are reported by the caller as unreadable.
QString signatureProblem(const QByteArray &message, const QByteArray &signature,
                         const qv::MinisignKey &key, const QString &feedName,
                         qv::Minisign::Verification *verification)
{
    const qv::Minisign::Verification &v = *verification
        = qv::Minisign::verify(message, signature, {key});
    if (v.result == qv::Minisign::BadSignature)
        return QStringLiteral("signature is stale: run softupdate sign (the .minisig does not "
                              "belong to the current bytes)");
    if (v.result == qv::Minisign::UnknownKey)
        return QStringLiteral("signed with another key (id %1)").arg(v.keyId);
    if (v.result != qv::Minisign::Valid)
        return qv::Minisign::describe(v.result);
    const QStringList fields = v.trustedComment.split(QLatin1Char('\t'));
    for (const QString &field : fields) {
        if (field.startsWith(QLatin1String("file:")) && field.mid(5) != feedName)
            return QStringLiteral("signed for another feed (%1): clients refuse it here")
                .arg(field);
    }
    return QString();
}

int verify(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(withExitCodes(
        QStringLiteral("Checks CATALOGUE.minisig for CATALOGUE with a public key (its base64 "
                       "line, or a minisign.pub file), as the client does."),
        QStringLiteral("0 it verifies, 2 it does not (stale, another key, another feed), 3 the "
                       "catalogue or its signature cannot be read")));
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
        return fail(QStringLiteral("cannot read %1").arg(catalogue), CannotRead);
    if (!readFile(catalogue + QStringLiteral(".minisig"), &signature,
                  qv::Minisign::maxSignatureSize))
        return fail(QStringLiteral("cannot read %1.minisig").arg(catalogue), CannotRead);
    qv::Minisign::Verification v;
    const QString problem
        = signatureProblem(message, signature, publicKey, QFileInfo(catalogue).fileName(), &v);
    if (v.result == qv::Minisign::Malformed)
        return fail(QStringLiteral("cannot read %1.minisig: %2").arg(catalogue, problem),
                    CannotRead);
    if (!problem.isEmpty())
        return fail(QStringLiteral("%1: %2").arg(catalogue, problem), Errors);
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

// A catalogue file or URL, whole; an exit code (and the message written) on failure.
int readSource(const QString &source, QByteArray *data)
{
    const QUrl url(source);
    QString why;
    if (url.scheme() == u"http" || url.scheme() == u"https") {
        if (!fetch(url, data, &why))
            return fail(QStringLiteral("cannot read %1: %2").arg(source, why), CannotRead);
    } else if (!readFile(source, data, qv::XmlLimits().maxBytes + 1)) {
        return fail(QStringLiteral("cannot read %1").arg(source), CannotRead);
    }
    return Success;
}

// The install mode option of lint and offer.
const QCommandLineOption kInstallMode(QStringLiteral("install-mode"),
                                      QStringLiteral("designed (the default) or complete: the "
                                                     "client's install mode."),
                                      QStringLiteral("MODE"), QStringLiteral("designed"));

int lint(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(withExitCodes(
        QStringLiteral("Lists what the client would refuse or misread in a catalogue, one line "
                       "per finding with its line number."),
        QStringLiteral("0 clean, 1 warnings only, 2 errors, 3 the catalogue, the previous one "
                       "or the signature cannot be read")));
    const QCommandLineOption previous(
        QStringLiteral("previous"),
        QStringLiteral("The published catalogue (URL or file): warns when the serial is lower, "
                       "which every client that saw it refuses."),
        QStringLiteral("URL|FILE"));
    const QCommandLineOption key(
        QStringLiteral("key"),
        QStringLiteral("The public key (base64 line or .pub file): the catalogue's .minisig "
                       "must verify for its current bytes."),
        QStringLiteral("KEY"));
    p.addOptions({previous, key, kInstallMode});
    int code = Usage;
    if (!parse(p, args, {"CATALOGUE|URL"}, &code))
        return code;
    const QString mode = p.value(kInstallMode);
    if (mode != u"designed" && mode != u"complete")
        return fail(QStringLiteral("--install-mode is designed or complete, not \"%1\"").arg(mode),
                    Usage);
    qv::MinisignKey publicKey;
    if (p.isSet(key)) {
        publicKey = qv::MinisignKey::fromText(keyText(p.value(key)));
        if (!publicKey.isValid())
            return fail(QStringLiteral("%1 is not a minisign public key").arg(p.value(key)), Usage);
    }
    const QString source = p.positionalArguments().at(0);
    QByteArray xml;
    if (const int read = readSource(source, &xml); read != Success)
        return read;
    int errors = 0, warnings = 0;
    const auto say = [&](int line, bool error, const QString &text) {
        std::printf("%s:%d: %s: %s\n", qPrintable(source), line, error ? "error" : "warning",
                    qPrintable(text));
        ++(error ? errors : warnings);
    };
    // A binary file is no catalogue, whatever the XML reader would make of it.
    if (const QString binary = binaryData(xml); !binary.isEmpty()) {
        say(0, true, QStringLiteral("not a text file (%1): not a catalogue").arg(binary));
        return Errors;
    }
    QBuffer buffer(&xml);
    buffer.open(QIODevice::ReadOnly);
    QDomDocument doc;
    try {
        qv::XmlUtils::parseXml(&buffer, &doc);
    } catch (const qv::ExceptionQt &e) {
        say(0, true, QStringLiteral("the client refuses this document: %1").arg(e.message()));
        return Errors;
    }
    const QDomElement root = doc.documentElement();
    const int rootLine = root.lineNumber();
    bool serialOk = false;
    const qint64 serial = root.attribute(qv::DownloadManager::SERIAL).toLongLong(&serialOk);
    if (!serialOk)
        say(rootLine, true,
            QStringLiteral("no readable \"serial\": a client with trusted keys refuses it"));
    if (p.isSet(previous)) {
        QByteArray published;
        if (const int read = readSource(p.value(previous), &published); read != Success)
            return read;
        CatalogueText before;
        QString why;
        const qint64 was = before.read(QString::fromUtf8(published), &why)
            ? before.rootAttribute(qv::DownloadManager::SERIAL).toLongLong()
            : 0;
        if (serialOk && serial < was)
            say(rootLine, false,
                QStringLiteral("serial %1 is lower than %2 of the published catalogue %3: every "
                               "client that saw it refuses this one (softupdate sign raises it)")
                    .arg(serial)
                    .arg(was)
                    .arg(p.value(previous)));
    }
    const QDateTime expires
        = qv::DownloadManager::parseReleaseDate(root.attribute(qv::DownloadManager::EXPIRES));
    if (!expires.isValid())
        say(rootLine, true,
            QStringLiteral("no readable \"expires\": a client with trusted keys refuses it"));
    else if (expires < QDateTime::currentDateTime())
        say(rootLine, true,
            QStringLiteral("expired on %1").arg(root.attribute(qv::DownloadManager::EXPIRES)));
    if (p.isSet(key)) {
        QByteArray signature;
        const QString signaturePath = source + QStringLiteral(".minisig");
        if (readSource(signaturePath, &signature) != Success)
            return CannotRead;
        qv::Minisign::Verification v;
        const QString problem
            = signatureProblem(xml, signature, publicKey, QUrl(source).fileName(), &v);
        if (v.result == qv::Minisign::Malformed)
            return fail(QStringLiteral("cannot read %1: %2").arg(signaturePath, problem),
                        CannotRead);
        if (!problem.isEmpty())
            say(0, true, problem);
    }

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

    const QStringList offeredTypes = qv::PackageTypes::offered(mode == u"complete");
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
        else if (!qv::Sha256::isHexDigest(info.sha256))
            say(line, true, what + QStringLiteral(": sha256 is not 64 hex digits"));
        // Deltas a client would skip: it then downloads the full package.
        for (const qv::PackageInfo::Delta &delta : std::as_const(info.deltas)) {
            const QString from
                = what + QStringLiteral(": the delta from \"%1\"").arg(delta.fromRelease);
            if (!qv::Sha256::isHexDigest(delta.sha256))
                say(line, false,
                    from + QStringLiteral(" has no valid sha256: clients never use it"));
            if (delta.fromRelease.isEmpty()
                || qv::VersionNumber::fromText(delta.fromRelease)
                    >= qv::VersionNumber::fromText(info.release))
                say(line, false,
                    from + QStringLiteral(" is not from an older release: clients never use it"));
            if (delta.url.scheme() != u"http" && delta.url.scheme() != u"https")
                say(line, false,
                    from + QStringLiteral(" has no http or https URL: clients never use it"));
        }
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
    return errors ? Errors : warnings ? Warnings : Success;
}

int serve(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(withExitCodes(
        QStringLiteral("Serves DIR (catalogue, signature, packages) on 127.0.0.1, for testing "
                       "only: one line per request (method, path, status, bytes). Publish with "
                       "nginx or any static web server (docs/catalogue.md has a server block)."),
        QStringLiteral("0 stopped, 3 DIR is missing or no folder, or the port cannot be "
                       "listened on")));
    const QCommandLineOption port(QStringLiteral("port"),
                                  QStringLiteral("The port, 1 to 65535 (default 8080)."),
                                  QStringLiteral("N"), QStringLiteral("8080"));
    p.addOption(port);
    int code = Usage;
    if (!parse(p, args, {"DIR"}, &code))
        return code;
    bool ok = false;
    const int number = p.value(port).toInt(&ok);
    if (!ok || number < 1 || number > 65535)
        return fail(QStringLiteral("--port takes 1 to 65535, not \"%1\"").arg(p.value(port)),
                    Usage);
    const QString folder = p.positionalArguments().at(0);
    if (!QFileInfo(folder).isDir())
        return fail(QStringLiteral("cannot serve %1: %2")
                        .arg(folder,
                             QFileInfo::exists(folder) ? QStringLiteral("not a folder")
                                                       : QStringLiteral("no such folder")),
                    CannotRead);
    StaticServer server(folder);
    server.setLog([](const QString &line) {
        std::printf("%s\n", qPrintable(line));
        std::fflush(stdout);
    });
    if (!server.listen(QHostAddress::LocalHost, quint16(number)))
        return fail(QStringLiteral("cannot listen on 127.0.0.1:%1: %2")
                        .arg(number)
                        .arg(server.errorString()),
                    CannotRead);
    std::printf("serving %s on http://127.0.0.1:%d/ (for testing; publish with nginx or any "
                "static web server)\n"
                "note: clients download packages from port 80 of the package URL's host, "
                "whatever port the URL names, unless they have trusted keys; serve packages on "
                "port 80 (or through a proxy).\n",
                qPrintable(folder), server.serverPort());
    std::fflush(stdout);
    return QCoreApplication::exec();
}

int offer(const QStringList &args)
{
    QCommandLineParser p;
    p.setApplicationDescription(withExitCodes(
        QStringLiteral("Runs the client's request, verification and selection and prints the "
                       "packages the user would be offered."),
        QStringLiteral("0 nothing to offer, 10 updates available, 3 the catalogue cannot be read "
                       "or is refused (the client's reason is printed)")));
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
    p.addOptions(
        {server, file, app, version, platform, camera, beta, language, keys, kInstallMode});
    int code = Usage;
    if (!parse(p, args, {}, &code))
        return code;
    if (p.isSet(server) == p.isSet(file) || !p.isSet(app) || !p.isSet(version))
        return fail(QStringLiteral("offer needs --server or --file, --app and --version"), Usage);
    const QString mode = p.value(kInstallMode);
    if (mode != u"designed" && mode != u"complete")
        return fail(QStringLiteral("--install-mode is designed or complete, not \"%1\"").arg(mode),
                    Usage);
    QStringList trusted;
    for (const QString &k : p.values(keys)) {
        trusted << keyText(k);
        if (!qv::MinisignKey::fromText(trusted.last()).isValid())
            return fail(QStringLiteral("%1 is not a minisign public key").arg(k), Usage);
    }
    if (mode == u"complete")
        qv::SoftwareUpdateClient::setInstallMode(qv::SoftwareUpdateClient::CompleteInstall);

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
        if (!info.isFile())
            return fail(QStringLiteral("cannot read %1").arg(p.value(file)), CannotRead);
        if (!local->listen(QHostAddress::LocalHost))
            return fail(
                QStringLiteral("cannot serve %1: %2").arg(p.value(file), local->errorString()),
                CannotRead);
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

    int result = CannotRead;
    QEventLoop loop;
    QObject::connect(&client, &qv::SoftwareUpdateClient::upToDate, &loop, [&] {
        std::printf("nothing to offer\n");
        result = Success;
        loop.quit();
    });
    QObject::connect(&client, &qv::SoftwareUpdateClient::checkFailed, &loop,
                     [&](const QString &reason) {
                         std::fprintf(stderr, "softupdate: %s\n", qPrintable(reason));
                         result = CannotRead;
                         loop.quit();
                     });
    QObject::connect(&client, &qv::SoftwareUpdateClient::updatesAvailable, &loop, [&] {
        result = Offered;
        loop.quit();
    });
    QTimer::singleShot(0, &client, [&client] { client.checkForUpdate(0); });
    loop.exec();
    if (result != Offered)
        return result;
    // The rows of the list the user would see, as that list shows them.
    const QList<int> hidden = qv::PackageTable::foreignLanguageRows(
        client.packageList(), QLocale::system().name().section(QLatin1Char('_'), 0, 0));
    const QList<QStringList> rows = qv::PackageTable::rows(client.packageList());
    for (int r = 0; r < rows.size(); ++r)
        std::printf("%s%s\n", qPrintable(rows.at(r).join(QStringLiteral(" | "))),
                    hidden.contains(r) ? " (hidden: another language)" : "");
    return Offered;
}

const char kUsage[]
    = "usage: softupdate add|sign|verify|lint|offer|serve|delta|apply ... (softupdate <command> "
      "--help)\n"
      "       softupdate --version\n"
      "Exit codes: 0 clean, 1 warnings (lint), 2 errors in the catalogue or its signature, 3 a "
      "file, URL or signature cannot be read, 10 updates available (offer), 64 usage error.\n";

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
    if (command == u"delta")
        return delta(args);
    if (command == u"apply")
        return apply(args);
    if (command == u"--help" || command == u"-h" || command == u"help") {
        std::printf("%s", kUsage);
        return Success;
    }
    if (command == u"--version") {
        std::printf("softupdate %s\n", SUC_VERSION);
        return Success;
    }
    std::fprintf(stderr, "%s", kUsage);
    return Usage;
}
