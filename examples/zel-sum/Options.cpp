#include "Options.h"

#include "Algorithm.h"

#include <QThread>

#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

constexpr int maxJobs = 1024;

constexpr option longOptions[] = {
    {"algorithm", required_argument, nullptr, 'a'},
    {"jobs", required_argument, nullptr, 'j'},
    {"check", required_argument, nullptr, 'c'},
    {"fail-fast", no_argument, nullptr, 'f'},
    {"help", no_argument, nullptr, 'h'},
    {"progress", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

constexpr char usage[] = R"(Usage: zel-sum [--algorithm NAME] [--jobs N] [--fail-fast] [--progress WHEN]
               PATH...
       zel-sum [--algorithm NAME] [--jobs N] [--fail-fast] [--progress WHEN]
               --check FILE
)";

constexpr char help[] = R"(
Prints the checksums of files, or verifies a list of them. Folders are walked,
without the symbolic links in them; - is the standard input.

  -a, --algorithm NAME  the algorithm, see below (default: sha256)
  -c, --check FILE      verify the lines of FILE, as this program or sha256sum
                        wrote them
      --fail-fast       stop at the first file that cannot be read or verified
  -j, --jobs N          number of working threads (default: one per processor)
      --progress WHEN   a line on stderr that says how far the work is: always,
                        never or auto, on a terminal (default)
  -h, --help            print this

Exit status: 0 success, 1 something failed, 2 wrong options, 130 interrupted.

Algorithms: )";

void printHelp()
{
    std::printf("%s%s%s\n", usage, help, algorithmNames().constData());
}

bool setAlgorithm(Options &options, const char *name)
{
    const auto algorithm = algorithmByName(name);
    if (!algorithm) {
        std::fprintf(stderr, "zel-sum: there is no algorithm '%s'\n", name);
        return false;
    }
    options.algorithm = *algorithm;
    return true;
}

bool setJobs(Options &options, const char *number)
{
    const char *const end = number + std::strlen(number);
    const auto [rest, error] = std::from_chars(number, end, options.jobs);
    if (error == std::errc() && rest == end && options.jobs >= 1 && options.jobs <= maxJobs)
        return true;
    std::fprintf(stderr, "zel-sum: '%s' is no number of jobs from 1 to %d\n", number, maxJobs);
    return false;
}

bool setProgress(Options &options, const char *when)
{
    if (std::strcmp(when, "auto") != 0 && std::strcmp(when, "always") != 0 && std::strcmp(when, "never") != 0) {
        std::fprintf(stderr, "zel-sum: --progress is always, never or auto, not '%s'\n", when);
        return false;
    }
    options.showsProgress = *when == 'a' && (when[1] == 'l' || ::isatty(STDERR_FILENO));
    return true;
}

bool setOption(Options &options, int option)
{
    switch (option) {
    case 'a':
        return setAlgorithm(options, optarg);
    case 'j':
        return setJobs(options, optarg);
    case 'c':
        options.list = optarg;
        return true;
    case 'f':
        options.failsFast = true;
        return true;
    case 'p':
        return setProgress(options, optarg);
    default: // getopt_long() has said what is wrong
        return false;
    }
}

bool isComplete(const Options &options)
{
    if (options.list.has_value() != options.paths.empty())
        std::fprintf(stderr, options.list ? "zel-sum: --check takes no paths\n" : "zel-sum: no path given\n");
    return options.list.has_value() == options.paths.empty();
}

} // namespace

std::optional<Options> parseOptions(int argc, char **argv, int &exitStatus)
{
    Options options;
    options.jobs = QThread::idealThreadCount();
    setProgress(options, "auto");
    bool isUsable = true;
    int option;
    while (isUsable && (option = ::getopt_long(argc, argv, "a:j:c:h", longOptions, nullptr)) != -1) {
        if (option == 'h') {
            printHelp();
            exitStatus = 0;
            return std::nullopt;
        }
        isUsable = setOption(options, option);
    }
    options.paths.assign(argv + optind, argv + argc);
    if (isUsable && isComplete(options))
        return options;
    std::fprintf(stderr, "%sMore is said by: zel-sum --help\n", usage);
    exitStatus = 2;
    return std::nullopt;
}
