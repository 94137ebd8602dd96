// Runs the example program as a process: what it prints, says and returns.

#include <FileHasher.h>

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <initializer_list>
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

    Outcome run(const QString &program, const QStringList &arguments, const QByteArray &input = {}) const
    {
        return finish(*start(program, arguments), input);
    }

    Outcome sum(const QStringList &arguments, const QByteArray &input = {}) const
    {
        return run(QStringLiteral(ZEL_SUM_PROGRAM), arguments, input);
    }

    void writeOddNames() const
    {
        for (const char *name :
             {" blanks ", "-dash", "back\\slash", "line\nbreak", "\\n", "return\r", "not utf-8 \xff\xfe"})
            write(name, name);
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
        writeOddNames();
        const Outcome own = sum({u"."_s});
        QCOMPARE(own.errors, QByteArray());
        QCOMPARE(own.status, 0);
        QCOMPARE(own.output.count('\n'), 7);
        const Outcome checked = run(u"sha256sum"_s, {u"--check"_s, u"--strict"_s, u"--quiet"_s}, own.output);
        QCOMPARE(checked.output + checked.errors, QByteArray());
        QCOMPARE(checked.status, 0);
    }

    void listsOfSha256sumAreUnderstood()
    {
        writeOddNames();
        const Outcome list = run(u"sh"_s, {u"-c"_s, u"sha256sum -- *; sha256sum --binary -- *"_s});
        const Outcome checked = sum({u"--check"_s, u"-"_s}, list.output);
        QCOMPARE(checked.errors, QByteArray());
        QCOMPARE(checked.output.count(": OK\n"), 14);
        QCOMPARE(checked.status, 0);
    }

    void algorithms_data()
    {
        QTest::addColumn<QString>("tool");
        for (const char *name : {"md5", "sha1", "sha224", "sha384", "sha512"})
            QTest::addRow("%s", name) << QString::fromLatin1(name) + u"sum"_s;
        QTest::addRow("blake2b-512") << u"b2sum"_s;
    }

    void algorithms()
    {
        QFETCH(const QString, tool);
        const QString name = QString::fromLatin1(QTest::currentDataTag());
        write("empty", {});
        write("long", QByteArray(700'000, 'x'));
        const QStringList files{u"empty"_s, u"long"_s};
        const Outcome own = sum(QStringList{u"--algorithm"_s, name} + files);
        QCOMPARE(own.output, run(tool, files).output);
        QCOMPARE(sum({u"--algorithm="_s + name, u"--check=-"_s}, own.output).output,
                 QByteArray("empty: OK\nlong: OK\n"));
    }

    void orderIsThatOfTheNames_data()
    {
        QTest::addColumn<QString>("jobs");
        QTest::addRow("one job") << u"1"_s;
        QTest::addRow("many jobs") << u"16"_s;
    }

    // The first file is by far the last one to be done.
    void orderIsThatOfTheNames()
    {
        QFETCH(const QString, jobs);
        QVERIFY(QDir(m_folder->path()).mkpath(u"d/d"_s));
        const QByteArray big(20'000'000, 'b');
        QByteArray expected = lineOf("z", {}) + lineOf("./a", big);
        write("a", big);
        for (int i = 1000; i < 1600; ++i) {
            const QByteArray name = (i % 2 ? "d/" : "d/d/") + QByteArray::number(i);
            write(name, name);
        }
        for (int i = 1001; i < 1600; i += 2)
            expected += lineOf("./d/" + QByteArray::number(i), "d/" + QByteArray::number(i));
        for (int i = 1000; i < 1600; i += 2)
            expected += lineOf("./d/d/" + QByteArray::number(i), "d/d/" + QByteArray::number(i));
        write("z", {});
        expected += lineOf("./z", {});
        QCOMPARE(sum({u"--jobs"_s, jobs, u"z"_s, u"."_s}).output, expected);
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

    void unreadableFilesAreNamed_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("reason");
        QTest::addRow("missing") << u"missing"_s << QByteArray("No such file or directory");
        QTest::addRow("dangling link") << u"dangling"_s << QByteArray("No such file or directory");
        QTest::addRow("circle") << u"circle"_s << QByteArray("Too many levels of symbolic links");
        QTest::addRow("below a file") << u"a/b"_s << QByteArray("Not a directory");
        QTest::addRow("fails while it is read") << u"/proc/self/mem"_s << QByteArray("Input/output error");
    }

    void unreadableFilesAreNamed()
    {
        QFETCH(const QString, path);
        QFETCH(const QByteArray, reason);
        write("a", "1");
        write("z", "2");
        QVERIFY(QFile::link(u"nowhere"_s, pathOf(u"dangling"_s)));
        QVERIFY(QFile::link(u"circle"_s, pathOf(u"circle"_s)));
        const Outcome outcome = sum({u"a"_s, path, u"z"_s});
        QCOMPARE(outcome.errors, "zel-sum: " + path.toLatin1() + ": " + reason + '\n');
        QCOMPARE(outcome.output, lineOf("a", "1") + lineOf("z", "2"));
        QCOMPARE(outcome.status, 1);
    }

    void severalPathsKeepTheirOrderAndShareOneError()
    {
        QVERIFY(QDir(m_folder->path()).mkpath(u"d/e"_s) && QDir(m_folder->path()).mkpath(u"b"_s));
        for (const char *name : {"d/e/1", "d/2", "b/1"})
            write(name, name);
        const Outcome outcome = sum({u"d"_s, u"missing"_s, u"b"_s, u"/proc/self/mem"_s, u"d/2"_s});
        QByteArray lines;
        for (const char *name : {"d/2", "d/e/1", "b/1", "d/2"})
            lines += lineOf(name, name);
        QCOMPARE(outcome.output, lines);
        QVERIFY(outcome.errors.contains("zel-sum: missing: No such file or directory\n"));
        QVERIFY(
            outcome.errors.endsWith("zel-sum: 2 of 6 files failed: Input/output error; No such file or directory\n"));
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
        addRow("no line break at the end", good.chopped(1), "a: OK\n", "");
        addRow("comments and line ends", "# list\n\n" + good.chopped(1) + "\r\n", "a: OK\n", "");
        addRow("upper case", hexOf("1").toUpper() + " *a\n", "a: OK\n", "");
        addRow("mismatch", other + good, "a: FAILED, the digest differs\na: OK\n", "zel-sum: 1 of 2 files failed\n");
        addRow("missing", lineOf("b", "") + good, "b: FAILED to read\na: OK\n",
               "zel-sum: b: No such file or directory\nzel-sum: 1 of 2 files failed\n");
        addRow("folder", lineOf(".", ""), ".: FAILED to read\n",
               "zel-sum: .: Is a directory\nzel-sum: 1 of 1 files failed\n");
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

    void listThatCannotBeReadFails()
    {
        const Outcome outcome = sum({u"--check"_s, u"missing"_s});
        QVERIFY2(outcome.errors.startsWith("zel-sum: missing: No such file or directory\n"),
                 outcome.errors.constData());
        QCOMPARE(outcome.status, 1);
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

    void failFastStopsAtTheFirstFailure_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<QByteArray>("errors");
        const QByteArray missing = "zel-sum: missing: No such file or directory\n";
        for (const char *jobs : {"1", "2"}) {
            const QStringList options{u"--fail-fast"_s, u"--jobs"_s, QString::fromLatin1(jobs)};
            QTest::addRow("unreadable, %s jobs", jobs)
                << options + QStringList{u"a"_s, u"missing"_s, u"endless"_s, u"endless"_s} << lineOf("a", "1")
                << missing;
            QTest::addRow("mismatch, %s jobs", jobs)
                << options + QStringList{u"--check"_s, u"list"_s}
                << QByteArray("a: OK\na: FAILED, the digest differs\n") << QByteArray("zel-sum: 1 of 3 files failed\n");
        }
    }

    void failFastStopsAtTheFirstFailure()
    {
        QFETCH(const QStringList, arguments);
        write("a", "1");
        writeEndless(u"endless"_s);
        write("list", lineOf("a", "1") + lineOf("a", "2") + lineOf("endless", ""));
        const Outcome outcome = sum(arguments);
        QTEST(outcome.output, "output");
        QTEST(outcome.errors, "errors");
        QCOMPARE(outcome.status, 1);
    }

    void wrongOptionsShowTheUsage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addRow("nothing") << QStringList();
        QTest::addRow("unknown") << QStringList{u"--unknown"_s, u"a"_s};
        QTest::addRow("algorithm") << QStringList{u"--algorithm"_s, u"sha"_s, u"a"_s};
        for (const char *jobs : {"0", "-1", "2x", "", "99999999999"})
            QTest::addRow("jobs \"%s\"", jobs) << QStringList{u"--jobs"_s, QString::fromLatin1(jobs), u"a"_s};
        QTest::addRow("no value") << QStringList{u"a"_s, u"--jobs"_s};
        QTest::addRow("progress") << QStringList{u"--progress=sometimes"_s, u"a"_s};
        QTest::addRow("list and path") << QStringList{u"--check"_s, u"a"_s, u"a"_s};
    }

    void wrongOptionsShowTheUsage()
    {
        QFETCH(const QStringList, arguments);
        write("a", lineOf("a", "1"));
        const Outcome outcome = sum(arguments);
        QVERIFY2(outcome.errors.contains("Usage: zel-sum"), outcome.errors.constData());
        QCOMPARE(outcome.output, QByteArray());
        QCOMPARE(outcome.status, 2);
    }

    void signalStopsRunningWork_data()
    {
        QTest::addColumn<int>("signal");
        QTest::addRow("SIGINT") << SIGINT;
        QTest::addRow("SIGTERM") << SIGTERM;
    }

    void signalStopsRunningWork()
    {
        QFETCH(const int, signal);
        write("a", "1");
        writeEndless(u"endless"_s);
        const auto process = startSum({u"--jobs=2"_s, u"a"_s, u"endless"_s, u"endless"_s, u"endless"_s});
        QTRY_VERIFY_WITH_TIMEOUT(isOpenIn(process->processId(), pathOf(u"endless"_s)), longTime);
        QTRY_VERIFY_WITH_TIMEOUT(process->bytesAvailable() > 0, longTime);
        QElapsedTimer timer;
        timer.start();
        ::kill(pid_t(process->processId()), signal);
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

    // The program does not wait for its threads when it is stopped, which hides whether they obey.
    void hashingEndsAfterABlockOnRequest()
    {
        writeEndless(u"endless"_s);
        const QByteArray path = QFile::encodeName(pathOf(u"endless"_s));
        FileHash hash;
        const std::unique_ptr<QThread> thread(
            QThread::create([&] { hash = FileHasher(QCryptographicHash::Sha256).hash(path); }));
        thread->start();
        thread->requestInterruption();
        QVERIFY(thread->wait(longTime));
        QVERIFY(hash.isInterrupted && hash.hex.isEmpty());
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
        const auto full = startSum({u"a"_s}, [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); });
        Outcome outcome = finish(*full);
        QCOMPARE(outcome.errors, QByteArray("zel-sum: standard output: No space left on device\n"));
        QCOMPARE(outcome.status, 1);

        int ends[2];
        QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
        ::close(ends[0]);
        const auto broken = startSum({u"a"_s}, [&ends] { ::dup2(ends[1], STDOUT_FILENO); });
        outcome = finish(*broken);
        ::close(ends[1]);
        QCOMPARE(outcome.errors, QByteArray("zel-sum: standard output: Broken pipe\n"));
        QCOMPARE(outcome.status, 1);
    }
};

QTEST_GUILESS_MAIN(ZelSumTest)
#include "tst_zelsum.moc"
