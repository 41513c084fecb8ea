#include "testfiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

bool writeFile(const QString &path, const QByteArray &content, bool executable)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    const bool written = file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
    file.close();
    return written && (!executable || file.setPermissions(file.permissions() | QFile::ExeOwner | QFile::ExeOther));
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

bool writeBundle(const QString &path, const QByteArray &version)
{
    return writeFile(path + "/Contents/Info.plist",
                     "<plist><dict><key>CFBundleShortVersionString</key><string>" + version
                         + "</string></dict></plist>\n")
        && writeFile(path + "/Contents/MacOS/Velmora", "#!/bin/sh\n", true)
        && writeFile(path + "/Contents/Resources/version", version);
}

QByteArray zipFolder(const QString &folder)
{
    // Found before any test narrows PATH down to its fakes.
    static const QString zipTool = QStandardPaths::findExecutable("zip");
    QTemporaryDir out;
    QProcess zip;
    zip.setWorkingDirectory(folder);
    zip.start(zipTool, {"-r", "-q", "-y", out.filePath("package.zip"), "."});
    return zip.waitForFinished(30000) && zip.exitCode() == 0 ? readFile(out.filePath("package.zip")) : QByteArray();
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
