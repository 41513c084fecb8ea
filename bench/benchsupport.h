#pragma once

#include <QByteArray>
#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QString>

#include <sys/resource.h>

// The drivers talk to the local release service, whose certificate comes
// from a throw-away CA that Qt does not know.
inline bool trustCa(const QString &pemPath)
{
    const QList<QSslCertificate> certificates = QSslCertificate::fromPath(pemPath);
    if (certificates.isEmpty())
        return false;
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.addCaCertificates(certificates);
    QSslConfiguration::setDefaultConfiguration(configuration);
    return true;
}

// User and system CPU time of this process so far, in seconds.
inline double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Peak resident set size of this process so far, in KiB.
inline long peakRssKib()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
#ifdef __APPLE__
    return usage.ru_maxrss / 1024;
#else
    return usage.ru_maxrss;
#endif
}
