#include "testfiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

bool writeFile(const QString &path, const QByteArray &content, bool executable)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return false;
    file.close();
    return !executable
        || file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                               | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool makeLayout(const QString &base, const QStringList &layout)
{
    for (const QString &entry : layout) {
        const QString path = base + '/' + entry;
        if (!(entry.endsWith('/') ? QDir().mkpath(path) : writeFile(path, "content of " + entry.toUtf8())))
            return false;
    }
    return true;
}

QByteArray zipFolder(const QString &folder)
{
    // Found before any test narrows PATH down to its fakes.
    static const QString zipTool = QStandardPaths::findExecutable("zip");
    QTemporaryDir out;
    QProcess zip;
    zip.setWorkingDirectory(folder);
    zip.start(zipTool, {"-r", "-q", "-y", out.filePath("package.zip"), "."});
    if (!zip.waitForFinished(30000) || zip.exitCode() != 0)
        return {};
    return readFile(out.filePath("package.zip"));
}

QByteArray zipLayout(const QStringList &layout)
{
    QTemporaryDir staging;
    return makeLayout(staging.path(), layout) ? zipFolder(staging.path()) : QByteArray();
}

QString sha256Hex(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex());
}

bool writeFakeTool(const QString &dir, const QString &name, const QByteArray &body)
{
    return writeFile(dir + '/' + name, "#!/bin/sh\necho \"" + name.toUtf8() + " $*\" >> \"$FAKE_LOG\"\n" + body + '\n',
                     true);
}
