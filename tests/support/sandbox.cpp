#include "sandbox.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

static QString sandboxDir;

QString sandboxPath()
{
    return sandboxDir;
}

int runInSandbox(int argc, char *argv[], const std::function<QObject *()> &makeTest)
{
    QTemporaryDir sandbox;
    if (!sandbox.isValid())
        qFatal("cannot create the sandbox");
    sandboxDir = sandbox.path();
    QDir().mkpath(sandbox.filePath("tmp"));
    qputenv("TMPDIR", QFile::encodeName(sandbox.filePath("tmp")));

    // The application sees the extra arguments; QTest only those it knows.
    QByteArray installFlag("--install-dir");
    QByteArray installDir = QFile::encodeName(sandbox.filePath("Applications"));
    std::vector<char *> appArgv(argv, argv + argc);
    appArgv.insert(appArgv.end(), {installFlag.data(), installDir.data(), nullptr});
    int appArgc = argc + 2;
    QCoreApplication app(appArgc, appArgv.data());

    const std::unique_ptr<QObject> test(makeTest());
    return QTest::qExec(test.get(), argc, argv);
}
