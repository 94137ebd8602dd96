#pragma once

#include "Source.h"

#include <zel/common/Error.h>
#include <zel/tasks/CustomComplexTask.h>

#include <QPointer>
#include <QSet>

#include <memory>

/**
 * The sum of what one path stands for: the tasks that hash its files are the subtasks, its progress is theirs.
 *
 * The files come from its source while the work goes on: it ends when the source was closed and all tasks have ended.
 */
class PathSum : public zel::CustomComplexTask {
    Q_OBJECT
public:
    /// With \a failsFast the first failure ends it; otherwise its error stands for all of them.
    PathSum(std::unique_ptr<Source> source, bool failsFast, QObject *parent);

    Source &source() const { return *m_source; }
    /// Starts \a task, which it takes ownership of, through the queue.
    void submit(zel::Task *task);
    /// Takes note of something that the source could not give.
    void addProblem(const zel::Error &problem);
    /// There is no more to come from the source.
    void closeSource();

protected:
    zel::Error doExecSubtasks() override;

private:
    const std::unique_ptr<Source> m_source;
    /// Goes on as long as there may be more files.
    QPointer<zel::Task> m_reading;
    QSet<zel::Error> m_problems;
};
