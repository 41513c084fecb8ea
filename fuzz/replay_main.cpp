// Runs a fuzz target once over given files and folders, without libFuzzer:
// the seed corpus and every input that once broke an invariant are replayed
// by the ordinary test build with any compiler.

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cstddef>
#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static bool replay(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", qPrintable(path));
        return false;
    }
    const QByteArray bytes = file.readAll();
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size()));
    return true;
}

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int replayed = 0;
    bool readable = true;
    for (int i = 1; i < argc; ++i) {
        const QString path = QString::fromLocal8Bit(argv[i]);
        if (QFileInfo(path).isDir()) {
            QDirIterator it(path, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
            while (it.hasNext()) {
                readable = replay(it.next()) && readable;
                ++replayed;
            }
        } else if (QFileInfo::exists(path)) {
            readable = replay(path) && readable;
            ++replayed;
        }
    }
    std::printf("replayed %d inputs\n", replayed);
    return readable && replayed > 0 ? 0 : 1;
}
