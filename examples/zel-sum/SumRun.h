#pragma once

#include "Batch.h"
#include "Options.h"
#include "Output.h"
#include "PathSum.h"
#include "ProgressLine.h"
#include "Source.h"
#include "Total.h"

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>
#include <zel/tasks/TasksQueue.h>

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QTimer>

#include <deque>
#include <memory>
#include <vector>

/**
 * Hashes files on working threads and prints the results in the order of the sources.
 *
 * Each source is a complex task, which is a child of one group. It begins when the source before it was read to its
 * end. A source is read while the work goes on, as far as there is room: the number of waiting tasks is limited, and
 * that of the results that wait for an earlier one.
 */
class SumRun : public QObject {
    Q_OBJECT
public:
    /// \a progressLine shows how far the run is; its request to cancel interrupts the run.
    SumRun(const Options &options, Output &output, Output &errorOutput, ProgressLine &progressLine);

    void start();
    /// Ends the run at once; what is done is printed.
    void stop(int exitStatus);
    /// Whether the run ended before the work did, so that some of it may not have returned yet.
    bool isStopped() const { return m_isStopped; }

Q_SIGNALS:
    /// All is printed. Once.
    void finished(int exitStatus);

private:
    void openSource();
    void closeSource();
    void feed();
    void feedSoon();
    bool hasRoom() const;
    void waitForSource();
    bool take(Item item);
    void submitBatch();
    void onTaskFinished(zel::Task &task);
    void onProblem(const Item &item);
    void printDone();
    void onWholeFinished();
    void finish();
    QByteArray summary() const;
    void fail(const QByteArray &complaints);
    void showProgress();

    const Options m_options;
    Output &m_output;
    Output &m_errorOutput;
    ProgressLine &m_progressLine;
    zel::TasksQueue m_queue;
    /// All that is read from sources, and m_rest.
    zel::GroupTask m_whole;
    /// Stands for what was not read from the sources yet.
    QPointer<zel::Task> m_rest;
    QTimer m_progressTimer;
    std::unique_ptr<Total> m_total;

    /// What the sources are made of, and the next one's place.
    std::vector<std::vector<QByteArray>> m_parts;
    size_t m_nextPart = 0;
    /// Whose source is being read.
    QPointer<PathSum> m_path;
    /// Wakes a source that waits; null for one that never does.
    std::unique_ptr<QSocketNotifier> m_moreToRead;

    /// The batch that is being filled, if any.
    std::shared_ptr<Batch> m_batch;
    /// Batches that were handed to the queue and not printed yet, in the order of the output.
    std::deque<std::shared_ptr<Batch>> m_batches;
    /// Those of tasks that have not finished. The work may outlast the run.
    QHash<zel::Task *, std::shared_ptr<Batch>> m_unfinished;
    /// Whether there may be more to read.
    bool m_hasMore = true;
    /// A call of feed() is posted.
    bool m_isFeedPosted = false;
    bool m_isStopped = false;
    bool m_isStopping = false;
    bool m_isFinished = false;
    qint64 m_files = 0;
    qint64 m_failures = 0;
    /// Of batches that were submitted, in KiB.
    qint64 m_submittedSize = 0;
    qint64 m_doneFiles = 0;
    int m_exitStatus = 0;
};
