#pragma once

// For tests that start the real swap script: it installs into whatever the
// command line's "--install-dir" names and logs below TMPDIR, so both must
// point into a private sandbox, whoever starts the test binary and however.

#include <QObject>
#include <QString>

#include <functional>

// The sandbox of this run: TMPDIR is its "tmp", the install folder its
// "Applications".
QString sandboxPath();

int runInSandbox(int argc, char *argv[], const std::function<QObject *()> &makeTest);

#define VELMORA_SANDBOX_TEST_MAIN(TestClass)                                                  \
    int main(int argc, char *argv[])                                                          \
    {                                                                                         \
        return runInSandbox(argc, argv, [] { return static_cast<QObject *>(new TestClass); }); \
    }
