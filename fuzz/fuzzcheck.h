#pragma once

#include <QByteArray>
#include <QDir>
#include <QString>

#include <cstdio>
#include <cstdlib>

// A broken invariant is a crash to the fuzzer and a failure to the replay:
// print what was seen and abort.
#define FUZZ_CHECK(condition, detail)                                                                                  \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "invariant broken at %s:%d: %s\n  %s\n", __FILE__, __LINE__, #condition,              \
                         QString(detail).toUtf8().constData());                                                        \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (0)

inline QString visible(const QString &text)
{
    return QString::fromLatin1(text.toUtf8().toPercentEncoding(" ./:-_+"));
}

// The targets must not read the settings of whoever runs them: point the
// settings store at an empty folder of our own.
inline void isolateSettings()
{
    const QString home = QDir::tempPath() + QStringLiteral("/velmora-fuzz-config");
    QDir().mkpath(home);
    qputenv("XDG_CONFIG_HOME", home.toUtf8());
    qputenv("HOME", home.toUtf8());
    qputenv("VELMORA_DEFAULT_LANGUAGE", "en");
}
