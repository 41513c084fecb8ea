#pragma once

#include "jobinputs.h"
#include "transfer.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QStringList>

class QFutureWatcherBase;
class QNetworkAccessManager;

class Downloader : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int progress READ progress NOTIFY progressChanged)
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    Q_PROPERTY(bool isFinished READ isFinished NOTIFY isFinishedChanged)
    Q_PROPERTY(bool hasError READ hasError NOTIFY hasErrorChanged)
    Q_PROPERTY(int phase READ phase NOTIFY phaseChanged)
    Q_PROPERTY(QString version READ version CONSTANT)

public:
    // policy: how the package's transfer copes with a misbehaving network;
    // the deployment's size limit and the shipped timings unless a test says otherwise.
    Downloader(const QString &version, const QString &url, const QString &sha256, bool packageFlag,
               QObject *parent = nullptr, const TransferPolicy &policy = defaultTransferPolicy());
    ~Downloader() override;

    int progress() const { return m_progress; }
    QString status() const { return m_status; }
    bool isFinished() const { return m_isFinished; }
    bool hasError() const { return m_hasError; }
    int phase() const { return m_phase; }
    QString version() const { return m_version; }

    QString packageFilePath() const { return m_packageFilePath; }
    static TransferPolicy defaultTransferPolicy();

    void startInstall();
    void postState(const QString &message, int phase, bool error);

    // The install job's steps, run on a pool thread by startInstall; each
    // hands the run's fixed inputs to its unit and reports through postState.
    void verifyAndExtract();
    bool verifyChecksum();
    void installHandOver(const QString &sourceRoot, const QString &tempLocation);

    // Set by the owner right after construction; read by the hand-over only.
    bool autoMode = false;
    // How long the interactive hand-over watches the swap script's status
    // file: 300 polls a second apart. Fixed before the worker starts.
    int statusPolls = 300;
    int statusPollIntervalMs = 1000;
    // With the publisher's keys built in, a package is installed only with a
    // valid signature of theirs, fetched from "<package URL>.minisig".
    // Fixed before the download ends; a test may set other keys.
    bool requireSignature = false;
    QList<SigningKey> signingKeys;

signals:
    void progressChanged();
    void statusChanged();
    void isFinishedChanged();
    void hasErrorChanged();
    void phaseChanged();
    void done();

public slots:
    void cancel();
    void openInstallDir();
    void openInstalledApp();
    void close();

private:
    bool startDownload();
    void onDownloadProgress(qint64 received, qint64 total);
    void onDownloadFinished(TransferEnd end);
    void onInstallWorkerFinished();
    void fetchSignature();
    void onSignatureFinished(TransferEnd end);
    void downloadAgain();
    QString deltaBaseVersion(const QString &installedBundle) const;
    void fallBackToPackage(const QString &reason);
    QString transferPath() const;
    QString deltaUrl(const char *suffix = "") const;
    void applyState(const QString &message, int phase, bool error);
    InstallJobInputs jobInputs() const;
    InstallReport reporter();
    void endJob(JobEnd end);

    void setProgress(int progress);
    void setStatus(const QString &status);
    void setIsFinished(bool finished);
    void setHasError(bool error);
    void setPhase(int phase);
    void fail(const QString &message);
    void failDownload(const QString &message);

    QString m_downloadUrl;
    QString m_version;
    QString m_expectedSha256;
    QString m_packageFilePath;
    QString m_installDir;
    // The command line and the executable's folder as the run started. The
    // hand-over works out the destination on a pool thread, and that thread
    // may still be running while the application object is torn down (the
    // user closed the window during extraction), when it could no longer say
    // where this run was asked to install.
    QStringList m_arguments;
    QString m_applicationDir;
    int m_progress = 0;
    QString m_status;
    bool m_isFinished = false;
    bool m_hasError = false;
    bool m_installerPackage = false;
    int m_phase = 0;
    TransferPolicy m_policy;
    QNetworkAccessManager *m_manager = nullptr;
    // The transfer under way (the package, or its signature after it), or null.
    Transfer *m_transfer = nullptr;
    bool m_packageDownloaded = false;
    bool m_packageResumed = false;
    // Set while a delta from this installed version is tried before the package.
    QString m_deltaFrom;
    QString m_installedBundle;
    QElapsedTimer m_throttle;
    QByteArray m_signature;
    QFutureWatcherBase *m_installWatcher = nullptr;
};
