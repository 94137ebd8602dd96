// Runs the example program as a process: what it prints, says and returns.

#include "support/Rows.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int longTime = 60'000;
// Hashing it takes minutes, storing it nothing.
constexpr qint64 endlessSize = 100LL * 1024 * 1024 * 1024;

struct Outcome {
    int status = -1;
    QByteArray output;
    QByteArray errors;
};

QByteArray hexOf(const QByteArray &content)
{
    return QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex();
}

QByteArray lineOf(const QByteArray &name, const QByteArray &content)
{
    return hexOf(content) + "  " + name + '\n';
}

bool isOpenIn(qint64 process, const QString &path)
{
    const QDir descriptors(u"/proc/%1/fd"_s.arg(process));
    const auto entries = descriptors.entryList(QDir::Files | QDir::System);
    return std::any_of(entries.begin(), entries.end(),
                       [&](const QString &entry) { return QFile::symLinkTarget(descriptors.filePath(entry)) == path; });
}

} // namespace

class ZelSumTest : public QObject {
    Q_OBJECT

private:
    QString pathOf(const QString &name) const { return m_folder->filePath(name); }

    /// The name is a name of bytes, which QFile could not write as it is.
    void write(const QByteArray &name, const QByteArray &content) const
    {
        const QByteArray path = QFile::encodeName(m_folder->path()) + '/' + name;
        const int descriptor = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        QVERIFY2(::write(descriptor, content.constData(), content.size()) == content.size(), path.constData());
        ::close(descriptor);
    }

    void writeEndless(const QString &name) const
    {
        QFile file(pathOf(name));
        QVERIFY(file.open(QFile::WriteOnly) && file.resize(endlessSize));
    }

    std::unique_ptr<QProcess> start(const QString &program, const QStringList &arguments,
                                    std::function<void()> inChild = {}) const
    {
        auto process = std::make_unique<QProcess>();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"LC_ALL"_s, u"C.UTF-8"_s);
        process->setProcessEnvironment(environment);
        process->setWorkingDirectory(m_folder->path());
        if (inChild)
            process->setChildProcessModifier(std::move(inChild));
        process->start(program, arguments);
        return process;
    }

    std::unique_ptr<QProcess> startSum(const QStringList &arguments, std::function<void()> inChild = {}) const
    {
        return start(QStringLiteral(ZEL_SUM_PROGRAM), arguments, std::move(inChild));
    }

    static Outcome finish(QProcess &process, const QByteArray &input = {})
    {
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished(longTime) || process.exitStatus() != QProcess::NormalExit)
            return {};
        return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    }

    Outcome sum(const QStringList &arguments, const QByteArray &input = {}) const
    {
        return finish(*startSum(arguments), input);
    }

    Outcome run(const QString &program, const QStringList &arguments, const QByteArray &input = {}) const
    {
        return finish(*start(program, arguments), input);
    }

    std::unique_ptr<QTemporaryDir> m_folder;

private Q_SLOTS:
    void init()
    {
        m_folder = std::make_unique<QTemporaryDir>();
        QVERIFY(m_folder->isValid());
    }

    void cleanup()
    {
        // QTemporaryDir does not get at names that are not UTF-8.
        std::filesystem::remove_all(QFile::encodeName(m_folder->path()).toStdString());
    }

    void namesOfAllBytesSurvive()
    {
        for (const char *name : {" blanks ", "-dash", "back\\slash", "line\nbreak", "\\n", "return\r", "\xff\xfe"})
            write(name, name);
        const Outcome own = sum({u"."_s});
        QCOMPARE(own.output.count('\n'), 7);
        const Outcome checked = run(u"sha256sum"_s, {u"--check"_s, u"--strict"_s, u"--quiet"_s}, own.output);
        QCOMPARE(own.errors + checked.output + checked.errors, QByteArray());

        const Outcome list = run(u"sh"_s, {u"-c"_s, u"sha256sum -- *; sha256sum --binary -- *"_s});
        QCOMPARE(sum({u"--check=-"_s}, list.output).output.count(": OK\n"), 14);
    }

    void algorithms()
    {
        write("long", QByteArray(700'000, 'x'));
        for (const QString &name : {u"md5"_s, u"sha1"_s, u"sha224"_s, u"sha384"_s, u"sha512"_s, u"blake2b-512"_s}) {
            const Outcome own = sum({u"--algorithm"_s, name, u"long"_s});
            QCOMPARE(own.output, run(name.startsWith(u'b') ? u"b2sum"_s : name + u"sum"_s, {u"long"_s}).output);
            QCOMPARE(sum({u"--algorithm="_s + name, u"--check=-"_s}, own.output).output, QByteArray("long: OK\n"));
        }
    }

    // The first file is by far the last one to be done.
    void orderIsThatOfTheNames()
    {
        QVERIFY(QDir(m_folder->path()).mkpath(u"d/d"_s));
        const QByteArray big(20'000'000, 'b');
        write("a", big);
        QByteArray expected = lineOf("./a", big);
        for (const char *folder : {"d/", "d/d/"}) {
            for (int i = 1000; i < 1300; ++i) {
                const QByteArray name = folder + QByteArray::number(i);
                write(name, name);
                expected += lineOf("./" + name, name);
            }
        }
        write("z", {});
        expected = lineOf("z", {}) + expected + lineOf("./z", {});
        QCOMPARE(sum({u"--jobs"_s, u"1"_s, u"z"_s, u"."_s}).output, expected);
        QCOMPARE(sum({u"--jobs"_s, u"16"_s, u"z"_s, u"."_s}).output, expected);
    }

    void onlyRegularFilesOfFoldersAreRead()
    {
        QVERIFY(QDir(m_folder->path()).mkpath(u"folder"_s));
        write("folder/file", "1");
        QVERIFY(QFile::link(u"../folder"_s, pathOf(u"folder/loop"_s)));
        QVERIFY(QFile::link(u"file"_s, pathOf(u"folder/link"_s)));
        QCOMPARE(::mkfifo(QFile::encodeName(pathOf(u"folder/pipe"_s)).constData(), 0600), 0);
        QVERIFY(QFile::link(u"folder"_s, pathOf(u"given"_s)));
        QCOMPARE(sum({u"given"_s, u"folder/link"_s}).output, lineOf("given/file", "1") + lineOf("folder/link", "1"));
    }

    void unreadableFilesAreNamedAndSummedUp()
    {
        write("a", "1");
        write("z", "2");
        QVERIFY(QFile::link(u"circle"_s, pathOf(u"circle"_s)));
        const Outcome outcome = sum({u"missing"_s, u"a"_s, u"circle"_s, u"/proc/self/mem"_s, u"z"_s});
        QCOMPARE(outcome.output, lineOf("a", "1") + lineOf("z", "2"));
        for (const char *error : {"missing: No such file or directory", "/proc/self/mem: Input/output error",
                                  "circle: Too many levels of symbolic links", "3 of 5 files failed"})
            QVERIFY2(outcome.errors.contains(QByteArray("zel-sum: ") + error), outcome.errors.constData());
        QCOMPARE(outcome.status, 1);
    }

    void check_data()
    {
        const QByteArray good = lineOf("a", "1");
        const QByteArray other = lineOf("a", "2");
        const QByteArray notAList = "not a checksum line of this algorithm\n";
        QTest::addColumn<QByteArray>("list");
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QByteArray>("errors");
        const auto addRow = [](const char *name, const QByteArray &list, const QByteArray &output,
                               const QByteArray &errors) { QTest::addRow("%s", name) << list << output << errors; };
        addRow("good", good, "a: OK\n", "");
        addRow("comments and line ends", "# list\n\n" + good.chopped(1) + "\r\n", "a: OK\n", "");
        addRow("upper case", hexOf("1").toUpper() + " *a\n", "a: OK\n", "");
        addRow("mismatch", other + good, "a: FAILED, the digest differs\na: OK\n", "zel-sum: 1 of 2 files failed\n");
        addRow("missing", lineOf("b", "") + good, "b: FAILED to read\na: OK\n",
               "zel-sum: b: No such file or directory\nzel-sum: 1 of 2 files failed\n");
        addRow("bad line", good + "nonsense\n" + good, "a: OK\na: OK\n", "zel-sum: -:2: " + notAList);
        addRow("no digits", 'x' + good.sliced(1) + good, "a: OK\n", "zel-sum: -:1: " + notAList);
        addRow("other length", good.sliced(2) + good, "a: OK\n", "zel-sum: -:1: " + notAList);
        addRow("bad escape", '\\' + lineOf("\\x", "") + '\\' + lineOf("\\", "") + good, "a: OK\n",
               "zel-sum: -:1: " + notAList + "zel-sum: -:2: " + notAList);
        addRow("no name", hexOf("1") + "  \n" + good, "a: OK\n", "zel-sum: -:1: " + notAList);
        addRow("endless line", QByteArray(65536, '0') + '\n' + good, "a: OK\n", "zel-sum: -:1: " + notAList);
        addRow("empty", "", "", "zel-sum: -: no file is listed\n");
    }

    void check()
    {
        QFETCH(const QByteArray, list);
        write("a", "1");
        const Outcome outcome = sum({u"--check"_s, u"-"_s}, list);
        QTEST(outcome.output, "output");
        QTEST(outcome.errors, "errors");
        QCOMPARE(outcome.status, outcome.errors.isEmpty() ? 0 : 1);
    }

    void listThatComesSlowlyIsCheckedAsItComes()
    {
        write("a", "1");
        const auto process = startSum({u"--check"_s, u"-"_s});
        for (int i = 0; i < 3; ++i) {
            process->write(lineOf("a", "1"));
            QTRY_COMPARE_WITH_TIMEOUT(process->bytesAvailable(), 6, longTime);
            QCOMPARE(process->readAllStandardOutput(), QByteArray("a: OK\n"));
        }
        QCOMPARE(finish(*process).status, 0);
    }

    void failFastStopsAtTheFirstFailure()
    {
        write("a", "1");
        writeEndless(u"endless"_s);
        write("list", lineOf("a", "1") + lineOf("a", "2") + lineOf("endless", ""));
        for (const QString &jobs : {u"--jobs=1"_s, u"--jobs=2"_s}) {
            Outcome outcome = sum({u"--fail-fast"_s, jobs, u"a"_s, u"missing"_s, u"endless"_s, u"endless"_s});
            QCOMPARE(outcome.output, lineOf("a", "1"));
            QCOMPARE(outcome.errors, QByteArray("zel-sum: missing: No such file or directory\n"));

            outcome = sum({u"--fail-fast"_s, jobs, u"--check"_s, u"list"_s});
            QCOMPARE(outcome.output, QByteArray("a: OK\na: FAILED, the digest differs\n"));
            QCOMPARE(outcome.errors, QByteArray("zel-sum: 1 of 3 files failed\n"));
            QCOMPARE(outcome.status, 1);
        }
    }

    void signalStopsRunningWork_data() { addRows<int>({{"SIGINT", SIGINT}, {"SIGTERM", SIGTERM}}); }

    void signalStopsRunningWork()
    {
        QFETCH(const int, row);
        write("a", "1");
        writeEndless(u"endless"_s);
        const auto process = startSum({u"--jobs=2"_s, u"a"_s, u"endless"_s, u"endless"_s, u"endless"_s});
        QTRY_VERIFY_WITH_TIMEOUT(isOpenIn(process->processId(), pathOf(u"endless"_s)), longTime);
        QTRY_VERIFY_WITH_TIMEOUT(process->bytesAvailable() > 0, longTime);
        QElapsedTimer timer;
        timer.start();
        ::kill(pid_t(process->processId()), row);
        const Outcome outcome = finish(*process);
        QVERIFY2(timer.elapsed() < 1000, qPrintable(u"%1 ms"_s.arg(timer.elapsed())));
        QCOMPARE(outcome.status, 130);
        QCOMPARE(outcome.output, lineOf("a", "1"));
        QCOMPARE(outcome.errors, QByteArray());
    }

    void progressLineIsDrawnTenTimesASecondAndTakenBack()
    {
        writeEndless(u"endless"_s);
        QElapsedTimer timer;
        timer.start();
        const auto process = startSum({u"--progress=always"_s, u"--jobs=2"_s, u"endless"_s, u"endless"_s});
        QByteArray drawn;
        const auto hasTotal = [&] {
            drawn += process->readAllStandardError();
            return drawn.contains("0 of 2 files, ") && drawn.contains("/s, ") && drawn.contains(" left");
        };
        QTRY_VERIFY_WITH_TIMEOUT(hasTotal(), longTime);
        ::kill(pid_t(process->processId()), SIGINT);
        const Outcome outcome = finish(*process);
        drawn += outcome.errors;
        QCOMPARE(outcome.status, 130);
        QVERIFY(drawn.endsWith("\r\033[K") && !drawn.contains('\n'));
        QVERIFY(drawn.count(" files, ") <= 1 + timer.elapsed() / 100);
    }

    // As under a pager that nobody turns over.
    void signalEndsTheWaitForAReader()
    {
        for (int i = 0; i < 600; ++i)
            write(QByteArray(200, 'n') + QByteArray::number(i), {});
        int ends[2];
        QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
        const auto process = startSum({u"."_s}, [&ends] { ::dup2(ends[1], STDOUT_FILENO); });
        QVERIFY(process->waitForStarted());
        ::close(ends[1]);
        const auto unread = [&ends] {
            int count = 0;
            return ::ioctl(ends[0], FIONREAD, &count) == 0 ? count : 0;
        };
        const int pipeSize = ::fcntl(ends[0], F_GETPIPE_SZ);
        QTRY_VERIFY_WITH_TIMEOUT(unread() > pipeSize - 4096, longTime);
        ::kill(pid_t(process->processId()), SIGINT);
        QCOMPARE(finish(*process).status, 130);
        QByteArray text(pipeSize, '\0');
        text.resize(::read(ends[0], text.data(), text.size()));
        ::close(ends[0]);
        QVERIFY(text.endsWith('\n'));
    }

    void outputThatCannotBeWrittenFails()
    {
        write("a", "1");
        const auto process = startSum({u"a"_s}, [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); });
        const Outcome outcome = finish(*process);
        QCOMPARE(outcome.errors, QByteArray("zel-sum: standard output: No space left on device\n"));
        QCOMPARE(outcome.status, 1);
    }
};

QTEST_GUILESS_MAIN(ZelSumTest)
#include "tst_zelsum.moc"
