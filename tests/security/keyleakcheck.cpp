// Fails when the release service key, or any 32-byte piece of it, is found in
// the files or folders given on the command line. The key must only exist
// scrambled in what the build produces; anyone with `strings` could lift a
// plain copy from the shipped binary.
//
//   keyleakcheck [--key-file FILE] PATH...
//
// With --key-file the deployed key is read from FILE (one trailing line feed
// ignored) and must also be exactly what the program rebuilds at run time;
// without it the program's own rebuilt key is searched for. Folders are
// searched recursively. Before searching, the check proves on planted files
// that it would find the key; the key itself is never printed.

#include "updatechecker.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>
#include <cstring>
#include <unordered_set>
#include <vector>

namespace {

constexpr int pieceLength = 32;

class KeyFinder
{
public:
    explicit KeyFinder(const QByteArray &key)
        : key(key)
        , firstTwo(65536, false)
    {
        for (int i = 0; i + pieceLength <= key.size(); ++i) {
            const uchar *p = reinterpret_cast<const uchar *>(key.constData()) + i;
            firstTwo[p[0] | (p[1] << 8)] = true;
            prefixes.insert(prefixOf(p));
        }
    }

    // Offset of the first piece of the key in data, or -1.
    qsizetype find(const QByteArray &data) const
    {
        const uchar *bytes = reinterpret_cast<const uchar *>(data.constData());
        const qsizetype last = data.size() - pieceLength;
        for (qsizetype i = 0; i <= last; ++i) {
            if (!firstTwo[bytes[i] | (bytes[i + 1] << 8)])
                continue;
            if (!prefixes.count(prefixOf(bytes + i)))
                continue;
            const QByteArrayView piece(data.constData() + i, pieceLength);
            if (key.contains(piece))
                return i;
        }
        return -1;
    }

private:
    static quint64 prefixOf(const uchar *p)
    {
        quint64 value;
        std::memcpy(&value, p, sizeof value);
        return value;
    }

    QByteArray key;
    std::vector<bool> firstTwo;
    std::unordered_set<quint64> prefixes;
};

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray readFile(const QString &path, bool *ok)
{
    QFile file(path);
    *ok = file.open(QIODevice::ReadOnly);
    return *ok ? file.readAll() : QByteArray();
}

// A check that never finds anything proves nothing: plant the key whole, as
// a piece, and not at all, and insist on the right answers.
bool selfCheck(const KeyFinder &finder, const QByteArray &key)
{
    QByteArray filler(4096, '\0');
    for (int i = 0; i < filler.size(); ++i)
        filler[i] = char((i * 131 + 7) & 0xff);
    const QByteArray whole = filler + key + filler;
    const QByteArray piece = filler + key.mid(100, pieceLength) + filler;
    const QByteArray shortPiece = filler + key.mid(100, pieceLength - 1) + filler;

    struct Case { const char *name; QByteArray data; bool expectFound; };
    const Case cases[] = {
        {"whole key", whole, true},
        {"32-byte piece", piece, true},
        {"key at the very end", filler + key, true},
        {"31-byte piece", shortPiece, false},
        {"no key", filler + filler, false},
    };
    QTemporaryDir dir;
    if (!dir.isValid()) {
        std::fprintf(stderr, "keyleakcheck: self-check: no temporary folder\n");
        return false;
    }
    bool passed = true;
    for (const Case &c : cases) {
        const QString path = dir.filePath(QString::fromLatin1(c.name));
        bool readOk = false;
        const bool written = writeFile(path, c.data);
        const bool found = written && finder.find(readFile(path, &readOk)) >= 0;
        if (!written || !readOk || found != c.expectFound) {
            std::fprintf(stderr, "keyleakcheck: self-check failed for \"%s\"\n", c.name);
            passed = false;
        }
    }
    return passed;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QStringList arguments = QCoreApplication::arguments().mid(1);

    const QByteArray rebuilt = serviceKey();
    QByteArray key = rebuilt;
    if (arguments.size() >= 2 && arguments.first() == QLatin1String("--key-file")) {
        bool ok = false;
        key = readFile(arguments.at(1), &ok);
        if (!ok) {
            std::fprintf(stderr, "keyleakcheck: cannot read the key file %s\n", qPrintable(arguments.at(1)));
            return 2;
        }
        if (key.endsWith('\n'))
            key.chop(1);
        if (key != rebuilt) {
            std::fprintf(stderr, "keyleakcheck: the program does not rebuild the key of the key file\n");
            return 1;
        }
        arguments = arguments.mid(2);
    }
    if (key.size() != 169) {
        std::fprintf(stderr, "keyleakcheck: the key is %lld bytes long, not 169\n", qlonglong(key.size()));
        return 1;
    }
    if (arguments.isEmpty()) {
        std::fprintf(stderr, "usage: keyleakcheck [--key-file FILE] PATH...\n");
        return 2;
    }

    const KeyFinder finder(key);
    if (!selfCheck(finder, key))
        return 1;

    int leaks = 0;
    int searched = 0;
    for (const QString &path : std::as_const(arguments)) {
        const QFileInfo info(path);
        if (!info.exists()) {
            // A missing file would make the check pass without looking.
            std::fprintf(stderr, "keyleakcheck: %s does not exist\n", qPrintable(path));
            return 2;
        }
        QStringList files;
        if (info.isDir()) {
            QDirIterator it(path, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
            while (it.hasNext())
                files.append(it.next());
        } else {
            files.append(path);
        }
        for (const QString &file : std::as_const(files)) {
            bool ok = false;
            const QByteArray data = readFile(file, &ok);
            if (!ok) {
                std::fprintf(stderr, "keyleakcheck: cannot read %s\n", qPrintable(file));
                return 2;
            }
            ++searched;
            const qsizetype at = finder.find(data);
            if (at >= 0) {
                std::fprintf(stderr, "keyleakcheck: the service key appears in %s at offset %lld\n",
                             qPrintable(file), qlonglong(at));
                ++leaks;
            }
        }
    }
    std::printf("keyleakcheck: %d files searched, %d hold the key\n", searched, leaks);
    return leaks == 0 ? 0 : 1;
}
