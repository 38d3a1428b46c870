#pragma once

// The rules of a signed catalogue, shared by the client's check and the manager's queries.

#include "PackageInfo.h"

#include <qv/Minisign.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QList>
#include <QStringList>

namespace qv {

class CatalogueTrust {
    Q_DECLARE_TR_FUNCTIONS(SoftwareUpdateClient)

public:
    enum Verdict {
        Trusted,
        NotSigned, ///< no signature file, or not one minisign wrote
        Forged, ///< signed by no trusted key, or the signature does not match
        NoTrustValues, ///< signed, but without a readable serial or expiry
        Rollback, ///< an older publication than one accepted before
        Expired,
    };
    struct Outcome {
        Verdict verdict = NotSigned;
        qint64 serial = -1;
        QString reason; ///< for the log, in English
    };

    /// The keys among `texts`. A text that is no key is logged and left out: trust stays on
    /// (whatever is configured is required), it just cannot be met by that key.
    static QList<MinisignKey> readKeys(const QStringList &texts, const char *caller);
    /// The keys given at build time (SUC_TRUSTED_KEYS), as texts.
    static QStringList builtInKeys();

    /// Verifies `signature` for `catalogue` with `keys`, then reads the document element's serial
    /// and expiry (nothing is parsed before the signature verifies). `highestSerial` is the
    /// highest accepted before for this server (-1: none).
    static Outcome check(const QByteArray &catalogue, const QByteArray &signature,
                         const QList<MinisignKey> &keys, qint64 highestSerial,
                         const QDateTime &now = QDateTime::currentDateTime());

    /// What the user is told when a check is refused for `verdict`.
    static QString userText(Verdict verdict);
    /// The text of the download error when a package is not the published one.
    static QString packageMismatchText();

    /// The settings key (below its group) of the highest serial accepted from `serverUrl`.
    static QString serialKey(const QString &serverUrl);

    /// Removes the packages that name no hash: they cannot be verified, so are never offered.
    static void dropUnhashed(PackageInfoList &packages, const char *caller);
};

} // namespace qv
