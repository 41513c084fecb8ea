#include "installjob.h"

#include "delta.h"
#include "extraction.h"
#include "handover.h"
#include "localisation.h"
#include "phase.h"
#include "verification.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

// The new bundle from the delta, in extractionDir exactly as the package
// would have left it. Any failure is a reason, never the user's concern:
// the run goes on with the whole package.
static DeltaResult buildFromDelta(const InstallJobInputs &inputs, const QString &extractionDir)
{
    const SignatureVerdict verdict
        = verifyPackageSignature(inputs.deltaSignature, inputs.signingKeys, inputs.deltaPath,
                                 digestPackage(inputs.deltaPath), deltaClaims(inputs.version, inputs.deltaFrom));
    if (verdict != SignatureVerdict::Valid)
        return {false, QStringLiteral("its signature was refused")};
    QDir(extractionDir).removeRecursively();
    if (!QDir().mkpath(extractionDir))
        return {false, QStringLiteral("the extraction folder could not be made")};
    return applyDelta(inputs.deltaPath, inputs.installedBundle, extractionDir);
}

JobEnd runInstallJob(const InstallJobInputs &inputs, const InstallReport &report)
{
    const QString tempLocation = QStandardPaths::writableLocation(QStandardPaths::TempLocation);

    report(translate("upd_verifying"), Phase::Unchanged, false);
    const QString extractionDir = tempLocation + QStringLiteral("/VelmoraExtract");
    if (!inputs.deltaPath.isEmpty()) {
        const DeltaResult delta = buildFromDelta(inputs, extractionDir);
        QFile::remove(inputs.deltaPath);
        if (!delta.ok) {
            qWarning().noquote() << "[Downloader] Delta not used, downloading the whole package:" << delta.reason;
            return JobEnd::FullPackage;
        }
        report(translate("upd_preparing"), Phase::Installing, false);
        return handOver(inputs, chooseSourceRoot(extractionDir), tempLocation, report);
    }

    const PackageCheck check = checkPackage(inputs);
    // The kept part may have come from a file the server has since replaced.
    if (check == PackageCheck::DigestMismatch && inputs.packageResumed) {
        QFile::remove(inputs.packagePath);
        return JobEnd::DownloadAgain;
    }
    if (check != PackageCheck::Verified) {
        report(translate(check == PackageCheck::DigestMismatch ? "upd_verify_failed" : "upd_signature_failed"),
               Phase::Failed, true);
        QFile::remove(inputs.packagePath);
        return JobEnd::Reported;
    }

    const Extraction extraction = extractPackage(inputs.packagePath, extractionDir);
    QFile::remove(inputs.packagePath);
    if (!extraction.ok) {
        report(extractionFailureMessage(extraction.errorText), Phase::Failed, true);
        return JobEnd::Reported;
    }

    const QString sourceRoot = chooseSourceRoot(extractionDir);
    report(translate("upd_preparing"), Phase::Installing, false);
    return handOver(inputs, sourceRoot, tempLocation, report);
}
