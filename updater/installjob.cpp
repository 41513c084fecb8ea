#include "installjob.h"

#include "extraction.h"
#include "handover.h"
#include "localisation.h"
#include "phase.h"
#include "verification.h"

#include <QFile>
#include <QStandardPaths>

JobEnd runInstallJob(const InstallJobInputs &inputs, const InstallReport &report)
{
    const QString tempLocation = QStandardPaths::writableLocation(QStandardPaths::TempLocation);

    // One installation at a time: the earlier script may be moving bundles,
    // and this run's extraction would pull its staged source away.
    if (earlierSwapScriptRunning(tempLocation)) {
        report(translate("upd_install_busy"), Phase::Failed, true);
        QFile::remove(inputs.packagePath);
        return JobEnd::Reported;
    }

    report(translate("upd_verifying"), Phase::Unchanged, false);
    const PackageCheck check = checkPackage(inputs);
    if (check != PackageCheck::Verified) {
        report(translate(check == PackageCheck::DigestMismatch ? "upd_verify_failed" : "upd_signature_failed"),
               Phase::Failed, true);
        QFile::remove(inputs.packagePath);
        return JobEnd::Reported;
    }

    const QString extractionDir = tempLocation + QStringLiteral("/VelmoraExtract");
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
