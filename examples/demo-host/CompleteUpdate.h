#pragma once

#include <QDir>
#include <QString>

/// Lays out 2.9 installed and 2.10 / 2.11 packages, serves them on port 80 and walks the
/// complete self-update through them. 0 when 2.10 ends up installed after 2.11 was rolled back.
int runCompleteDriver(const QString &program, const QString &updater, const QDir &out);

/// The part of one version started in the walk (DEMO_STATE is set in its environment).
int runCompleteStep();
