// Fails when the release service key, or any 32-byte piece of it, is found in
// the files or folders given (folders searched recursively). The key may only
// exist scrambled in what the build produces: anyone with `strings` could
// lift a plain copy from the shipped binary.
//
//   keyleakcheck [--key-file FILE] PATH...
//
// With --key-file the deployed key (one trailing line feed ignored) must also
// be exactly what the program rebuilds at run time. Before searching, the
// check proves on planted data that it would find the key; the key itself is
// never printed.

#include "updatechecker.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <cstring>
#include <unordered_set>

static constexpr int pieceLength = 32;

static quint64 prefixOf(const char *p)
{
    quint64 value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

// Offset of the first piece of the key in data, or -1. Only places whose
// first eight bytes start a piece are compared in full.
static qsizetype findKey(const QByteArray &key, const std::unordered_set<quint64> &prefixes, const QByteArray &data)
{
    for (qsizetype i = 0; i + pieceLength <= data.size(); ++i) {
        if (prefixes.count(prefixOf(data.constData() + i))
            && key.contains(QByteArrayView(data.constData() + i, pieceLength)))
            return i;
    }
    return -1;
}

static int fail(const char *what, const QString &detail = {})
{
    std::fprintf(stderr, "keyleakcheck: %s %s\n", what, qPrintable(detail));
    return 1;
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);
    QByteArray key = serviceKey();
    if (arguments.size() >= 2 && arguments.first() == QLatin1String("--key-file")) {
        QFile file(arguments.at(1));
        if (!file.open(QIODevice::ReadOnly))
            return fail("cannot read the key file", arguments.at(1));
        QByteArray deployed = file.readAll();
        if (deployed.endsWith('\n'))
            deployed.chop(1);
        if (deployed != key)
            return fail("the program does not rebuild the key of the key file");
        arguments = arguments.mid(2);
    }
    if (key.size() != 169 || arguments.isEmpty())
        return fail("usage: keyleakcheck [--key-file FILE] PATH... (and a 169-byte key)");

    std::unordered_set<quint64> prefixes;
    for (int i = 0; i + pieceLength <= key.size(); ++i)
        prefixes.insert(prefixOf(key.constData() + i));

    // A check that never finds anything proves nothing.
    const QByteArray filler(4096, 'x');
    if (findKey(key, prefixes, filler + key.mid(100, pieceLength) + filler) < 0
        || findKey(key, prefixes, filler + key.right(pieceLength)) < 0
        || findKey(key, prefixes, filler + key.mid(100, pieceLength - 1) + filler) >= 0)
        return fail("the self-check failed");

    int searched = 0;
    int leaks = 0;
    for (const QString &path : std::as_const(arguments)) {
        // A missing path would make the check pass without looking.
        if (!QFileInfo::exists(path))
            return fail("no such path:", path);
        QStringList files{path};
        if (QFileInfo(path).isDir()) {
            files.clear();
            QDirIterator it(path, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
            while (it.hasNext())
                files.append(it.next());
        }
        for (const QString &name : std::as_const(files)) {
            QFile file(name);
            if (!file.open(QIODevice::ReadOnly))
                return fail("cannot read", name);
            ++searched;
            if (findKey(key, prefixes, file.readAll()) >= 0) {
                fail("the service key appears in", name);
                ++leaks;
            }
        }
    }
    std::printf("keyleakcheck: %d files searched, %d hold the key\n", searched, leaks);
    return leaks == 0 ? 0 : 1;
}
