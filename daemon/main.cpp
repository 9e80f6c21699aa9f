// zrt-proxy: the proxy library on this machine's own sockets. SIGHUP reloads the configuration;
// SIGUSR1 reopens the access log; SIGINT or SIGTERM stops. It uses nothing but the library's C
// interface (and libcrypt to make password hashes).

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "daemon/CCommandLine.h"
#include "daemon/CConfigFile.h"
#include "daemon/CDaemonOptions.h"
#include "daemon/CPasswordHash.h"
#include "transport/CSocketUtils.h"
#include "zrtproxy/zrtproxy.h"

using ZRT::Daemon::CCommandLine;
using ZRT::Daemon::CConfigFile;
using ZRT::Daemon::CDaemonOptions;
using ZRT::Daemon::CPasswordHash;

namespace {

// Blocked in every thread (they inherit the mask), then taken synchronously by the main thread.
sigset_t HandledSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGUSR1);
    return signals;
}

// Standard error as the log lines reach it: never waiting, since the library's log callback must
// not block. A pipe, FIFO or terminal gets a description of its own with O_NONBLOCK (the inherited
// one may be shared with a shell, whose flags must stay); a socket (the journal) is sent to with
// MSG_DONTWAIT; a file is written as it is; where no description of its own can be had, a line
// goes only when poll says there is room (a page at least, more than a line).
struct SStandardError {
    enum class EMode { Write, Send, Polled };

    SStandardError() = default;
    SStandardError(const SStandardError&) = delete;
    SStandardError& operator=(const SStandardError&) = delete;
    ~SStandardError()
    {
        if (descriptor != STDERR_FILENO)
            close(descriptor);
    }

    int descriptor = STDERR_FILENO;
    EMode mode = EMode::Write;
    zrt_proxy_t* proxy = nullptr;
    unsigned long dropped = 0; // the log thread's: lines not taken since the last that was
};

void OpenStandardError(SStandardError& errors)
{
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0 || S_ISREG(status.st_mode))
        return;
    if (S_ISSOCK(status.st_mode)) {
        errors.mode = SStandardError::EMode::Send;
        return;
    }
    const int own = open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (own >= 0)
        errors.descriptor = own;
    else
        errors.mode = SStandardError::EMode::Polled;
}

// Whether standard error took the text (lines are shorter than PIPE_BUF: a pipe takes all or none).
bool WriteStandardError(const SStandardError& errors, const std::string& text)
{
    if (errors.mode == SStandardError::EMode::Polled) {
        pollfd entry{errors.descriptor, POLLOUT, 0};
        if (poll(&entry, 1, 0) != 1 || !(entry.revents & POLLOUT))
            return false;
    }
    const ssize_t written = errors.mode == SStandardError::EMode::Send
                                ? send(errors.descriptor, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                                : write(errors.descriptor, text.data(), text.size());
    return written > 0;
}

// The library's lines, up to its log-level, go to standard error; one that does not go at once is
// dropped, counted with the library's own, and told of with the next line that goes.
void LogLine(void* context, int /*level*/, const char* line)
{
    SStandardError& errors = *static_cast<SStandardError*>(context);
    if (errors.dropped > 0 &&
        WriteStandardError(errors, "zrt-proxy: " + std::to_string(errors.dropped) + " log lines dropped\n"))
        errors.dropped = 0;
    if (errors.dropped > 0 || !WriteStandardError(errors, std::string("zrt-proxy: ") + line + "\n")) {
        ++errors.dropped;
        zrt_proxy_count_dropped_log_lines(errors.proxy, 1);
    }
}

void ReopenLogs(zrt_proxy_t* proxy, const SStandardError& errors)
{
    if (zrt_proxy_reopen_logs(proxy) == ZRT_OK)
        return;
    WriteStandardError(errors, std::string("zrt-proxy: cannot reopen the logs: ") + zrt_proxy_last_error(proxy) + "\n");
}

long DescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return 1024;
    return static_cast<long>(limit.rlim_cur);
}

// The settings from the defaults, the configuration file and the command line; every problem
// of them (the file, each line, each value) in problems. running: see CDaemonOptions::Merge.
CDaemonOptions::Entries Gather(const CCommandLine& options, std::vector<std::string>& problems,
                               const CDaemonOptions::Entries* running = nullptr)
{
    CDaemonOptions::Entries file;
    if (!options.GetConfigFile().empty())
        CConfigFile::Read(options.GetConfigFile(), file, problems);
    CDaemonOptions::Entries merged =
        CDaemonOptions::Merge(CDaemonOptions::Defaults(DescriptorLimit()), file, options.GetSettings(), running);
    const std::vector<std::string> more = CDaemonOptions::Check(merged);
    problems.insert(problems.end(), more.begin(), more.end());
    return merged;
}

void Report(const std::string& prefix, const std::vector<std::string>& problems)
{
    for (const std::string& problem : problems)
        std::fprintf(stderr, "zrt-proxy: %s%s\n", prefix.c_str(), problem.c_str());
}

// While serving, standard error is written like the library's lines: never waiting for it, or a
// full pipe would keep the daemon from its signals.
void Say(const SStandardError& errors, const std::string& text)
{
    WriteStandardError(errors, "zrt-proxy: " + text + "\n");
}

// Reads everything again and applies what may change while running; settings with a problem, or
// that would drop every user without "auth none", change nothing. started: the settings of the
// start, whose listeners serve until a restart.
void Reload(zrt_proxy_t* proxy, const CCommandLine& options, const CDaemonOptions::Entries& started,
            CDaemonOptions::Entries& current, const SStandardError& errors)
{
    std::vector<std::string> problems;
    const CDaemonOptions::Entries next = Gather(options, problems, &started);
    std::vector<std::string> restartOnly;
    std::string error;
    if (problems.empty() && !CDaemonOptions::ApplyLive(proxy, current, next, restartOnly, error))
        problems.push_back(error);
    if (problems.empty() && zrt_proxy_reload(proxy) != ZRT_OK)
        problems.push_back(zrt_proxy_last_error(proxy));
    if (!problems.empty()) {
        for (const std::string& problem : problems)
            Say(errors, "reload failed, nothing changed: " + problem);
        return;
    }
    for (const std::string& name : restartOnly)
        Say(errors, "'" + name + "' changed; it takes effect at the next start");
    Say(errors, CDaemonOptions::DescribeLimits(next, DescriptorLimit()));
    current = next;
}

// Every problem of the configuration, or none; 0 or 1.
int CheckConfig(const CCommandLine& options)
{
    std::vector<std::string> problems;
    Gather(options, problems);
    Report("", problems);
    if (!problems.empty())
        return 1;
    std::printf("zrt-proxy: the configuration is valid\n");
    return 0;
}

// A hash of the password line on standard input, on standard output; 0 or 1.
int HashPassword()
{
    std::string password;
    for (int c = std::getchar(); c != EOF && c != '\n'; c = std::getchar())
        password += static_cast<char>(c);
    if (!password.empty() && password.back() == '\r')
        password.pop_back();
    std::string hash;
    std::string error;
    if (!CPasswordHash::Make(password, hash, error)) {
        std::fprintf(stderr, "zrt-proxy: %s\n", error.c_str());
        return 1;
    }
    std::printf("%s\n", hash.c_str());
    return 0;
}

// One line per listening socket, in the order of the listen values.
void AnnounceListeners(const zrt_proxy_t* proxy, const CDaemonOptions::Entries& settings)
{
    std::vector<std::string> listen = CDaemonOptions::ValuesOf(settings, "listen");
    if (listen.empty())
        listen.push_back(CDaemonOptions::LibraryDefault("listen"));
    for (int i = 0; i < zrt_proxy_listen_count(proxy) && i < static_cast<int>(listen.size()); ++i)
        std::printf("zrt-proxy listening on %s\n",
                    ZRT::CSocketUtils::FormatEndpoint(listen[i], zrt_proxy_listen_port(proxy, i)).c_str());
    std::fflush(stdout);
}

int Serve(zrt_proxy_t* proxy, const CCommandLine& options)
{
    std::vector<std::string> problems;
    CDaemonOptions::Entries current = Gather(options, problems);
    std::string error;
    if (problems.empty() && !CDaemonOptions::Apply(proxy, current, error))
        problems.push_back(error);
    if (!problems.empty()) {
        Report("", problems);
        return 2;
    }
    SStandardError errors;
    OpenStandardError(errors);
    errors.proxy = proxy;
    zrt_proxy_set_log_callback(proxy, &LogLine, &errors);
    if (zrt_proxy_start(proxy) != ZRT_OK) {
        std::fprintf(stderr, "zrt-proxy: %s\n", zrt_proxy_last_error(proxy));
        return 1;
    }
    AnnounceListeners(proxy, current);
    Say(errors, CDaemonOptions::DescribeLimits(current, DescriptorLimit()));

    const CDaemonOptions::Entries started = current;
    const sigset_t signals = HandledSignals();
    for (;;) {
        int received = 0;
        if (sigwait(&signals, &received) != 0)
            continue;
        if (received == SIGUSR1) {
            ReopenLogs(proxy, errors);
            continue;
        }
        if (received != SIGHUP)
            break;
        Reload(proxy, options, started, current, errors);
    }
    zrt_proxy_stop(proxy);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CCommandLine options;
    if (!options.Parse(argc, argv)) {
        std::fprintf(stderr, "zrt-proxy: %s\n", options.GetError().c_str());
        return 2;
    }
    if (options.WantsHelp()) {
        std::fputs(CCommandLine::Usage(CDaemonOptions::Defaults(DescriptorLimit())).c_str(), stdout);
        return 0;
    }
    if (options.WantsVersion()) {
        std::printf("zrt-proxy %s\n", zrt_proxy_version());
        return 0;
    }
    if (options.WantsHash())
        return HashPassword();
    if (options.WantsCheck())
        return CheckConfig(options);
    const sigset_t signals = HandledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    zrt_proxy_t* proxy = zrt_proxy_create();
    if (!proxy) {
        std::fprintf(stderr, "zrt-proxy: out of memory\n");
        return 1;
    }
    const int status = Serve(proxy, options);
    zrt_proxy_destroy(proxy);
    return status;
}
