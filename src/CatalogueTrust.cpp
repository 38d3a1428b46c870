#include "CatalogueTrust.h"

#include "DownloadManager.h"
#include "Logging.h"

#include <qv/Sha256.h>

#include <QUrl>
#include <QXmlStreamReader>

namespace qv {

QList<MinisignKey> CatalogueTrust::readKeys(const QStringList &texts, const char *caller)
{
    QList<MinisignKey> keys;
    for (const QString &text : texts) {
        const MinisignKey key = MinisignKey::fromText(text);
        if (key.isValid()) {
            keys << key;
            continue;
        }
        LogQt::write(
            lcDownload(), Log::Error,
            QStringLiteral("%1 -> refusing a trusted key that is not a minisign public key: %2")
                .arg(QLatin1String(caller), text.left(80)));
    }
    return keys;
}

QStringList CatalogueTrust::builtInKeys()
{
    return QStringLiteral(SUC_TRUSTED_KEYS)
        .split(QRegularExpression(QStringLiteral("[;,\\s]+")), Qt::SkipEmptyParts);
}

QString CatalogueTrust::feedName(const QUrl &catalogueUrl)
{
    return catalogueUrl.path().section(QLatin1Char('/'), -1);
}

QString CatalogueTrust::signedFeed(const QString &trustedComment)
{
    const QStringList fields = trustedComment.split(QLatin1Char('\t'));
    for (const QString &field : fields) {
        if (field.startsWith(QLatin1String("file:")))
            return field.mid(5);
    }
    return QString();
}

CatalogueTrust::Outcome CatalogueTrust::check(const QByteArray &catalogue,
                                              const QByteArray &signature,
                                              const QList<MinisignKey> &keys, const QString &feed,
                                              const SerialLookup &highestSerial,
                                              const QDateTime &now)
{
    Outcome out;
    const Minisign::Verification v = Minisign::verify(catalogue, signature, keys);
    out.keyId = v.keyId;
    if (v.result != Minisign::Valid) {
        out.verdict = v.result == Minisign::Malformed ? NotSigned : Forged;
        out.reason = Minisign::describe(v.result)
            + (v.keyId.isEmpty() ? QString() : QStringLiteral(" (key %1)").arg(v.keyId));
        return out;
    }
    // The same publisher signs other feeds with the same key: a catalogue counts only for the
    // feed it was signed as.
    const QString signedAs = signedFeed(v.trustedComment);
    if (feed.isEmpty() || signedAs != feed) {
        out.verdict = OtherFeed;
        out.reason = QStringLiteral("signed for the feed \"%1\", not for \"%2\"")
                         .arg(signedAs.isNull() ? QStringLiteral("(none)") : signedAs, feed);
        return out;
    }
    // Signed by a trusted key: only now is the document read, and only its first element.
    QXmlStreamReader reader(catalogue);
    reader.setNamespaceProcessing(false);
    QString serialText, expiresText;
    if (reader.readNextStartElement()) {
        serialText = reader.attributes().value(DownloadManager::SERIAL).toString();
        expiresText = reader.attributes().value(DownloadManager::EXPIRES).toString();
    }
    bool ok = false;
    out.serial = serialText.trimmed().toLongLong(&ok);
    const QDateTime expires = DownloadManager::parseReleaseDate(expiresText.trimmed());
    if (!ok || out.serial < 0 || !expires.isValid()) {
        out.verdict = NoTrustValues;
        out.reason = QStringLiteral(
                         "the signed catalogue has no readable serial (\"%1\") or expiry (\"%2\")")
                         .arg(serialText, expiresText);
        return out;
    }
    const qint64 highest = highestSerial ? highestSerial(v.keyId) : -1;
    if (out.serial < highest) {
        out.verdict = Rollback;
        out.reason = QStringLiteral("serial %1 is lower than %2, accepted before")
                         .arg(out.serial)
                         .arg(highest);
        return out;
    }
    if (expires < now) {
        out.verdict = Expired;
        out.reason
            = QStringLiteral("the catalogue expired on %1").arg(expires.toString(Qt::ISODate));
        return out;
    }
    out.verdict = Trusted;
    out.reason = QStringLiteral("signed with key %1, serial %2").arg(v.keyId).arg(out.serial);
    return out;
}

QString CatalogueTrust::userText(Verdict verdict)
{
    switch (verdict) {
    case Trusted:
        return QString();
    case NotSigned:
    case Forged:
        return tr("The update catalogue is not signed with a trusted key. No updates are offered.");
    case OtherFeed:
        return tr("The update catalogue is not signed for this update server. No updates are "
                  "offered.");
    case NoTrustValues:
        return tr("The update catalogue has no publication number or expiry date. No updates are "
                  "offered.");
    case Rollback:
        return tr("The update server sent an older catalogue than before. No updates are offered.");
    case Expired:
        return tr("The update catalogue has expired. No updates are offered.");
    }
    return QString();
}

QString CatalogueTrust::packageMismatchText()
{
    return tr("The downloaded package does not match the published one. It was deleted, and "
              "nothing was installed.");
}

QString CatalogueTrust::serialKey(const QString &keyId, const QString &feed)
{
    return QStringLiteral("catalogue-serial/") + keyId + QLatin1Char('_')
        + QString::fromLatin1(QUrl::toPercentEncoding(feed));
}

void CatalogueTrust::dropUnhashed(PackageInfoList &packages, const char *caller)
{
    packages.erase(
        std::remove_if(packages.begin(), packages.end(),
                       [caller](const PackageInfo &p) {
                           if (Sha256::isHexDigest(p.sha256))
                               return false;
                           LogQt::write(
                               lcDownload(), Log::Error,
                               QStringLiteral("%1 -> not offering %2 %3: it names no sha256")
                                   .arg(QLatin1String(caller), p.name, p.release));
                           return true;
                       }),
        packages.end());
}

} // namespace qv
