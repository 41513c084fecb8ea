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
    if (!packageMatchesDigest(inputs.packagePath, inputs.expectedSha256)) {
        report(translate("upd_verify_failed"), Phase::Failed, true);
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
