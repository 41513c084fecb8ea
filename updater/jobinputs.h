#pragma once

#include "packagesignature.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

// The values every step of the install job shares. They live apart from the
// steps, so that the includes run one way: from the Downloader down the
// pipeline, never from one step back into another.

// Everything the worker needs, fixed on the GUI thread before it starts: the
// worker reads nothing else of the run, so it needs no lock.
struct InstallJobInputs
{
    QString packagePath;
    QString expectedSha256; // trimmed and lower-cased
    QString version;
    // The command line and the executable's folder as the run began. The
    // worker may outlive the application object (the window was closed
    // mid-install), and then nothing could tell it where to install.
    QStringList arguments;
    QString applicationDir;
    bool autoMode = false;
    // The interactive watch of the swap script's status file.
    int statusPolls = 300;
    int statusPollIntervalMs = 1000;
    // Signed updates: the publisher's keys, and the signature file as fetched
    // (empty when it could not be had, which is a refusal).
    bool requireSignature = false;
    QList<SigningKey> signingKeys;
    QByteArray signature;
    // Part of the package came from an earlier attempt or an earlier run.
    bool packageResumed = false;
    // A delta to build the new bundle from instead of the package, with its
    // signature, the installed version it was made from and that bundle.
    // Empty deltaPath: the package.
    QString deltaPath;
    QByteArray deltaSignature;
    QString deltaFrom;
    QString installedBundle;
};

// How the worker reports, with postState's meaning: an empty message leaves
// the status as it is, Phase::Unchanged leaves the phase, error sets hasError.
using InstallReport = std::function<void(const QString &message, int phase, bool error)>;

enum class JobEnd {
    Reported, // the outcome is in the reports; the run goes on to its end
    QuitForSwap, // automatic mode: the swap script waits for this process to go
    DownloadAgain, // a continued package failed its digest: fetch it once more, whole
    FullPackage, // the delta could not be used: fetch the package instead
};
