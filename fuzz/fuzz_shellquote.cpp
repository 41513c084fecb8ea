// Paths and the version end up in the swap script's header. Whatever they
// hold (quotes, "$(...)", backticks, line feeds, any script), bash must read
// them back as the same bytes and never run any of it.
//
// Every input is decoded by the single-quote grammar in process; a sample
// (decided by the input itself, so that a crash replays) also goes through
// a real "bash -c".

#include "fuzzcheck.h"
#include "handover.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

// Reads quoted text as bash does outside and inside single quotes; anything
// outside the quotes other than an escaped character would be shell syntax.
static bool decodeSingleQuoted(const QString &quoted, QString *value)
{
    bool inside = false;
    for (qsizetype i = 0; i < quoted.size(); ++i) {
        const QChar c = quoted.at(i);
        if (inside) {
            if (c == QLatin1Char('\''))
                inside = false;
            else
                value->append(c);
        } else if (c == QLatin1Char('\'')) {
            inside = true;
        } else if (c == QLatin1Char('\\') && i + 1 < quoted.size()) {
            value->append(quoted.at(++i));
        } else {
            return false;
        }
    }
    return !inside;
}

static bool runBash(const QByteArray &command, QByteArray *output)
{
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
    char bash[] = "/bin/bash";
    char dashC[] = "-c";
    QByteArray script = command;
    char *argv[] = {bash, dashC, script.data(), nullptr};
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, bash, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (spawned != 0) {
        close(pipeFds[0]);
        return false;
    }
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
        if (n > 0)
            output->append(buffer, qsizetype(n));
        else if (n == 0 || errno != EINTR)
            break;
    }
    close(pipeFds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) { }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

static bool looksHostile(const QByteArray &bytes)
{
    for (char c : bytes) {
        if (c == '\'' || c == '"' || c == '$' || c == '`' || c == '\\' || c == '\n' || c == ';'
            || (static_cast<unsigned char>(c) & 0x80))
            return true;
    }
    return false;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    isolateSettings();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString value = QString::fromUtf8(input);
    const QString quoted = shellQuote(value);

    QString decoded;
    FUZZ_CHECK(decodeSingleQuoted(quoted, &decoded) && decoded == value,
               QStringLiteral("value \"%1\" quoted as \"%2\"").arg(visible(value), visible(quoted)));

    // A NUL cannot travel through an argument vector; huge values exceed
    // the kernel's limit for one argument.
    const QByteArray utf8 = value.toUtf8();
    if (utf8.contains('\0') || utf8.size() > 16 * 1024)
        return 0;
    const uint sample = qHash(input, 0x5eed);
    if (sample % (looksHostile(input) ? 8 : 64) != 0)
        return 0;

    QByteArray printed;
    const bool ran = runBash("printf %s " + quoted.toUtf8(), &printed);
    FUZZ_CHECK(
        ran && printed == utf8,
        QStringLiteral("bash printed \"%1\" for \"%2\"").arg(visible(QString::fromUtf8(printed)), visible(value)));
    return 0;
}
