#pragma once

#include "Batch.h"
#include "Options.h"
#include "Output.h"
#include "ProgressLine.h"
#include "Source.h"
#include "Total.h"
#include "WorkDone.h"

#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>

#include <deque>
#include <memory>

/**
 * Hashes all files of a source on working threads and prints the results in the source's order.
 *
 * The source is read while the work goes on, as far as there is room: the number of waiting tasks is limited, and that
 * of the results that wait for an earlier one.
 */
class SumRun : public QObject {
    Q_OBJECT
public:
    /// \a progressLine shows how far the run is; its request to cancel interrupts the run.
    SumRun(const Options &options, std::unique_ptr<Source> source, Output &output, Output &errorOutput,
           ProgressLine &progressLine);

    void start();
    /// Ends the run at once; what is done is printed.
    void stop(int exitStatus);
    /// Whether the run ended before the work did, so that some of it may not have returned yet.
    bool isStopped() const { return m_isStopped; }

Q_SIGNALS:
    /// All is printed. Once.
    void finished(int exitStatus);

private:
    void feed();
    void feedSoon();
    bool hasRoom() const;
    void waitForSource();
    bool take(Item item);
    void submitBatch();
    void onTaskFinished(const zel::Task &task, Batch &batch);
    void onProblem(const QByteArray &problem);
    void stopWork();
    void printDone();
    void finishIfDone();
    void finish();
    void sumUp();
    void fail(const QByteArray &complaints);
    void showProgress();

    const Options m_options;
    const std::unique_ptr<Source> m_source;
    Output &m_output;
    Output &m_errorOutput;
    ProgressLine &m_progressLine;
    /// The run as a whole, for the display of its progress.
    zel::Task m_whole{zel::Task::Asynchronous};
    QTimer m_progressTimer;
    std::unique_ptr<Total> m_total;
    /// The work may outlast the run.
    const std::shared_ptr<WorkDone> m_done = std::make_shared<WorkDone>();
    zel::TasksQueue m_queue;
    /// Parent of all tasks; destroyed before the queue.
    QObject m_tasks;
    /// Wakes a source that waits; null for one that never does.
    std::unique_ptr<QSocketNotifier> m_moreToRead;

    /// The batch that is being filled, if any.
    std::shared_ptr<Batch> m_batch;
    /// Batches that were handed to the queue and not printed yet, in the order of the output.
    std::deque<std::shared_ptr<Batch>> m_batches;
    /// Tasks that have not finished.
    int m_unfinishedTasks = 0;
    /// Whether the source may have more.
    bool m_hasMore = true;
    /// A call of feed() is posted.
    bool m_isFeedPosted = false;
    bool m_isStopped = false;
    bool m_isFinished = false;
    qint64 m_files = 0;
    qint64 m_failures = 0;
    int m_exitStatus = 0;
};
