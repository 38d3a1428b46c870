#pragma once

// The package types the client offers and installs, by install mode: one home for the library
// and for softupdate's lint and offer.

#include <QString>
#include <QStringList>

namespace qv::PackageTypes {

/// Application package types a check offers (the build's supported list).
inline QStringList offered(bool completeInstall)
{
    if (completeInstall)
        return {QStringLiteral("zip"), QStringLiteral("tar.gz"), QStringLiteral("rpm"),
                QStringLiteral("deb"), QStringLiteral("tar.bz2")};
    return {QStringLiteral("tar.gz"), QStringLiteral("rpm"), QStringLiteral("deb"),
            QStringLiteral("tar.bz2")};
}

/// The types Install is enabled for; without the complete install a single empty entry (stored
/// as an empty value).
inline QStringList installable(bool completeInstall)
{
    if (completeInstall)
        return {QStringLiteral("zip"), QStringLiteral("tar.gz")};
    return {QString(QLatin1String(""))};
}

} // namespace qv::PackageTypes
