#pragma once

// The rules of a signed catalogue, shared by the client's check and the manager's queries.

#include "PackageInfo.h"

#include <qv/Minisign.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QList>
#include <QStringList>

#include <functional>

namespace qv {

class CatalogueTrust {
    Q_DECLARE_TR_FUNCTIONS(SoftwareUpdateClient)

public:
    enum Verdict {
        Trusted,
        NotSigned, ///< no signature file, or not one minisign wrote
        Forged, ///< signed by no trusted key, or the signature does not match
        NoTrustValues, ///< signed, but without a readable serial or expiry
        OtherFeed, ///< signed for another catalogue (the trusted comment's "file:" differs)
        Rollback, ///< an older publication than one accepted before
        Expired,
    };
    struct Outcome {
        Verdict verdict = NotSigned;
        qint64 serial = -1;
        QString keyId; ///< of the trusted key that signed it
        QString reason; ///< for the log, in English
    };
    /// The highest serial accepted before for a signing key (by its id); -1 for none.
    using SerialLookup = std::function<qint64(const QString &keyId)>;

    /// The keys among `texts`. A text that is no key is logged and left out: trust stays on
    /// (whatever is configured is required), it just cannot be met by that key.
    static QList<MinisignKey> readKeys(const QStringList &texts, const char *caller);
    /// The keys given at build time (SUC_TRUSTED_KEYS), as texts.
    static QStringList builtInKeys();

    /// Verifies `signature` for `catalogue` with `keys`, checks that the signature names the feed
    /// (the trusted comment's "file:" field equals `feed`, as minisign writes it), then reads the
    /// document element's serial and expiry (nothing is parsed before the signature verifies).
    /// `highestSerial` gives the highest serial accepted before for the signing key and this feed.
    static Outcome check(const QByteArray &catalogue, const QByteArray &signature,
                         const QList<MinisignKey> &keys, const QString &feed,
                         const SerialLookup &highestSerial,
                         const QDateTime &now = QDateTime::currentDateTime());

    /// The feed a catalogue URL names: the file name of its path ("list.xml"), which is what
    /// minisign and softupdate sign write as "file:" in the trusted comment.
    static QString feedName(const QUrl &catalogueUrl);
    /// The "file:" field of a trusted comment (tab-separated fields), or a null text.
    static QString signedFeed(const QString &trustedComment);

    /// What the user is told when a check is refused for `verdict`.
    static QString userText(Verdict verdict);
    /// The text of the download error when a package is not the published one.
    static QString packageMismatchText();

    /// The settings key (below its group) of the highest serial accepted for `feed` signed by
    /// the key `keyId`: a rotated key starts a record of its own, and two spellings of one
    /// server's URL share theirs.
    static QString serialKey(const QString &keyId, const QString &feed);

    /// Removes the packages that name no hash: they cannot be verified, so are never offered.
    static void dropUnhashed(PackageInfoList &packages, const char *caller);
};

} // namespace qv
