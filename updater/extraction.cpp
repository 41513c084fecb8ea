#include "extraction.h"

#include "localisation.h"

#include <QDir>
#include <QProcess>
#include <QStringList>

// True when the tool ran to completion with exit code 0. Otherwise its
// standard error is left in errorText; a tool still running is killed when
// the process object goes.
static bool runExtractor(const QString &program, const QStringList &arguments, int timeoutMs, QString *errorText)
{
    QProcess tool;
    tool.start(program, arguments, QIODevice::ReadWrite);
    // A program that cannot be started makes the wait fail at once.
    if (tool.waitForFinished(timeoutMs) && tool.exitCode() == 0)
        return true;
    *errorText = QString::fromLocal8Bit(tool.readAllStandardError());
    return false;
}

Extraction extractPackage(const QString &packagePath, const QString &extractionDir, int toolTimeoutMs)
{
    // Files left by an earlier run must never reach the hand-over.
    QDir(extractionDir).removeRecursively();
    QDir().mkpath(extractionDir);

    Extraction result;
    // ditto keeps the bundle's extended attributes and symbolic links; unzip
    // is the fallback for a system where ditto fails.
    result.ok = runExtractor(QStringLiteral("ditto"),
                             {QStringLiteral("-x"), QStringLiteral("-k"), packagePath, extractionDir}, toolTimeoutMs,
                             &result.errorText);
    if (result.ok)
        return result;

    QString unzipError;
    result.ok = runExtractor(QStringLiteral("unzip"),
                             {QStringLiteral("-o"), packagePath, QStringLiteral("-d"), extractionDir}, toolTimeoutMs,
                             &unzipError);
    if (result.ok) {
        result.errorText.clear();
        return result;
    }
    if (!unzipError.isEmpty()) {
        if (!result.errorText.isEmpty())
            result.errorText += QLatin1Char('\n');
        result.errorText += unzipError;
    }
    return result;
}

QString extractionFailureMessage(const QString &errorText)
{
    QString text = errorText;
    // Neither tool said anything: most likely neither could be started.
    if (text.trimmed().isEmpty())
        text = translate("upd_unzip_missing");
    return text.isEmpty() ? translate("upd_zip_failed") : translate("upd_zip_failed_detail").arg(text.trimmed());
}

QString chooseSourceRoot(const QString &extractionDir)
{
    const QDir dir(extractionDir);
    QStringList folders = dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    // Archives made with the Finder carry resource forks in "__MACOSX".
    folders.removeAll(QStringLiteral("__MACOSX"));
    if (folders.size() == 1 && dir.entryList(QDir::Files | QDir::NoDotAndDotDot, QDir::Unsorted).isEmpty())
        return extractionDir + QLatin1Char('/') + folders.first();
    return extractionDir;
}
