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

    report(translate("upd_verifying"), Phase::Unchanged, false);
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
