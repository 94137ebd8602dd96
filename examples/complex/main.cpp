// A complex task: a build that compiles its files in parallel and links them when the last one is compiled.

#include <zel/tasks/CustomComplexTask.h>
#include <zel/tasks/TasksQueue.h>

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

using namespace Qt::StringLiterals;
using namespace zel;

namespace {

class Build : public CustomComplexTask {
public:
    Build(const QStringList &files, const QString &brokenFile)
        : CustomComplexTask(u"build"_s)
        , m_files(files)
        , m_brokenFile(brokenFile)
    {
        connect(groupTask(), &GroupTask::progress, this, &Build::setProgress);
    }

protected:
    Error doExecSubtasks() override
    {
        m_toCompile = int(m_files.size());
        // Still open when the last file is compiled: the group is not done before the program is linked.
        m_link = new Task([] { return std::puts("  link"), Error(); });
        countAsStep(m_link);
        appendSubtask(m_link);
        for (const QString &file : m_files) {
            auto *compile = new Task([this, file] { return compileFile(file); }, Task::WorkingThread);
            countAsStep(compile);
            execSubtask(compile, [this, file] { onCompiled(file); });
        }
        return NoError;
    }

private:
    static void countAsStep(Task *subtask)
    {
        subtask->setProgress(0, 1);
        connect(subtask, &Task::finished, subtask, [subtask] { subtask->setProgress(subtask->isSuccessful(), 1); });
    }

    // On a working thread.
    Error compileFile(const QString &file) const
    {
        return file == m_brokenFile ? Error(FormatError, file + u": syntax error"_s) : Error();
    }

    void onCompiled(const QString &file)
    {
        std::printf("  %s is compiled\n", qPrintable(file));
        if (--m_toCompile == 0)
            execSubtask(m_link);
    }

    const QStringList m_files;
    const QString m_brokenFile;
    int m_toCompile = 0;
    Task *m_link = nullptr;
};

void run(const QString &brokenFile)
{
    std::puts(brokenFile.isEmpty() ? "build" : "build with a fault");
    TasksQueue queue;
    queue.setMaxRunningTasksCount(1);
    Build build({u"main"_s, u"parser"_s, u"printer"_s}, brokenFile);
    queue.append(&build);
    build.waitForFinished();
    std::printf("  => %s, %d of %d steps\n", build.hasError() ? qPrintable(build.error().displayText()) : "done",
                build.currentProgress(), build.totalProgress());
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    run(QString());
    run(u"parser"_s);
}
