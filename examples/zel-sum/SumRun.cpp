#include "SumRun.h"

#include "ChecksumLine.h"
#include "Complaint.h"

#include <QMetaObject>

#include <limits>
#include <utility>

using zel::Task;
using zel::TasksQueue;

namespace {

// A working thread costs about as much as hashing ten small files: a batch has enough of them not to notice.
constexpr size_t maxBatchFiles = 128;
constexpr qint64 maxBatchSize = 2 * 1024 * 1024;

constexpr int maxWaitingTasks = 256;
// Behind one huge file the others go on until this many of their batches are done.
constexpr size_t maxHeldBatches = 4096;

constexpr int timeToPrintAfterStop = 200; // milliseconds
constexpr int timeBetweenFigures = 100;   // milliseconds

constexpr int interruptedStatus = 130;

/// The unit of the figures: a task's progress is an int.
int toKibibytes(qint64 bytes)
{
    return int(qMin<qint64>(bytes / 1024, std::numeric_limits<int>::max()));
}

/// What takes long begins early: no processor shall be idle while the last one is at a huge file.
int priorityFor(qint64 size)
{
    constexpr qint64 huge = 64 * 1024 * 1024;
    constexpr qint64 big = 8 * 1024 * 1024;
    return size >= huge ? 0 : size >= big ? 1 : 2;
}

/// For work that never began, for want of a thread.
void failAll(Batch &batch, const zel::Error &error)
{
    for (const Item &item : batch.items)
        batch.complaints += complaint(EscapedName(item.path).name + ": " + error.displayText().toLocal8Bit());
    batch.failures = int(batch.items.size());
}

} // namespace

SumRun::SumRun(const Options &options, std::unique_ptr<Source> source, Output &output, Output &errorOutput,
               ProgressLine &progressLine)
    : m_options(options)
    , m_source(std::move(source))
    , m_output(output)
    , m_errorOutput(errorOutput)
    , m_progressLine(progressLine)
{
    m_whole.connectTo(&m_progressLine, Qt::DirectConnection);
    connect(&m_whole, &Task::canceled, this, [this] { stop(interruptedStatus); });
    connect(&m_progressTimer, &QTimer::timeout, this, &SumRun::showProgress);
    m_queue.setMaxRunningTasksCount(options.jobs);
    m_queue.setCleanupMode(TasksQueue::DeleteFinished);
    m_queue.setTaskErrorPolicy(options.failsFast ? TasksQueue::ClearOnError : TasksQueue::ContinueOnError);
    connect(&m_queue, &TasksQueue::stateChanged, this, &SumRun::finishIfDone);
}

void SumRun::start()
{
    m_whole.exec();
    if (m_progressLine.isShown()) {
        m_total = std::make_unique<Total>(m_options.paths);
        m_progressTimer.start(timeBetweenFigures);
    }
    feedSoon();
}

void SumRun::stop(int exitStatus)
{
    if (m_isFinished)
        return;
    m_exitStatus = exitStatus;
    const QDeadlineTimer deadline(timeToPrintAfterStop);
    m_output.setDeadline(deadline);
    m_errorOutput.setDeadline(deadline);
    stopWork();
    m_queue.clear();
    finish();
}

// One batch a call: in between, tasks that have finished make room for the next ones, and signals come through.
void SumRun::feed()
{
    m_isFeedPosted = false;
    if (!m_hasMore || !hasRoom())
        return;
    Item item;
    Source::Next next;
    do
        next = m_source->next(item);
    while (next == Source::File && !take(std::move(item)));

    switch (next) {
    case Source::File:
    case Source::Nothing:
        return feedSoon();
    case Source::Problem:
        return onProblem(item.problem);
    case Source::Wait:
        submitBatch();
        return waitForSource();
    case Source::End:
        m_hasMore = false;
        submitBatch();
        finishIfDone();
    }
}

void SumRun::feedSoon()
{
    if (!std::exchange(m_isFeedPosted, true))
        QMetaObject::invokeMethod(this, &SumRun::feed, Qt::QueuedConnection);
}

bool SumRun::hasRoom() const
{
    return m_unfinishedTasks < maxWaitingTasks + m_options.jobs && m_batches.size() < maxHeldBatches;
}

void SumRun::waitForSource()
{
    if (!m_moreToRead) {
        m_moreToRead = std::make_unique<QSocketNotifier>(m_source->waitDescriptor(), QSocketNotifier::Read);
        connect(m_moreToRead.get(), &QSocketNotifier::activated, this, [this] {
            m_moreToRead->setEnabled(false);
            feedSoon();
        });
    }
    m_moreToRead->setEnabled(true);
}

/// Returns whether a batch was submitted.
bool SumRun::take(Item item)
{
    const size_t submitted = m_batches.size();
    // A file that is big enough for a task of its own does not wait behind small ones.
    if (m_batch && m_batch->size + item.size > maxBatchSize)
        submitBatch();
    if (!m_batch)
        m_batch = std::make_shared<Batch>();
    ++m_files;
    m_batch->size += item.size;
    m_batch->items.push_back(std::move(item));
    if (m_batch->size >= maxBatchSize || m_batch->items.size() == maxBatchFiles)
        submitBatch();
    return m_batches.size() > submitted;
}

void SumRun::submitBatch()
{
    const std::shared_ptr<Batch> batch = std::exchange(m_batch, nullptr);
    if (!batch)
        return;
    const auto work = [batch, algorithm = m_options.algorithm, failsFast = m_options.failsFast, done = m_done] {
        return hashBatch(*batch, algorithm, failsFast, *done);
    };
    auto *task = new Task(std::function<zel::Error()>(work), Task::WorkingThread, &m_tasks);
    task->setPriority(priorityFor(batch->size));
    task->setThreadTerminationEnabled(false);
    // The work looks for a request to stop after each block, and holds all it needs: nobody has to wait for it.
    task->setThreadWaitTime(0);
    connect(task, &Task::finished, this, [this, task, batch] { onTaskFinished(*task, *batch); });
    m_batches.push_back(batch);
    ++m_unfinishedTasks;
    m_queue.append(task);
}

void SumRun::onProblem(const QByteArray &problem)
{
    fail(problem);
    if (m_options.failsFast)
        stop(1);
    else
        feedSoon();
}

void SumRun::onTaskFinished(const Task &task, Batch &batch)
{
    --m_unfinishedTasks;
    // Its work may still be writing to the batch.
    if (task.isCanceled())
        return;
    if (task.hasError() && batch.failures == 0)
        failAll(batch, task.error());
    if (task.hasError())
        fail(batch.complaints);
    if (task.hasError() && m_options.failsFast)
        stopWork();
    m_failures += batch.failures;
    batch.isDone = true;
    batch.items = {}; // what is held until its turn comes are the lines
    printDone();
    feedSoon();
}

/// Lets nothing more begin, and asks what is under way to end: a queue that drops its tasks does not.
void SumRun::stopWork()
{
    m_isStopped = true;
    m_hasMore = false;
    const auto tasks = m_tasks.findChildren<Task *>(Qt::FindDirectChildrenOnly);
    for (Task *task : tasks) {
        if (task->isRunning())
            task->cancel();
    }
}

void SumRun::printDone()
{
    while (!m_batches.empty() && m_batches.front()->isDone) {
        m_output.write(m_batches.front()->lines);
        m_batches.pop_front();
    }
    if (m_output.error())
        stop(1);
}

void SumRun::finishIfDone()
{
    // What a stop signal kept from being written is the business of the stop() that follows.
    if (!m_hasMore && m_queue.count() == 0 && !m_output.hasRest())
        finish();
}

void SumRun::finish()
{
    if (std::exchange(m_isFinished, true))
        return;
    m_progressTimer.stop();
    m_progressLine.clear();
    m_whole.finish();
    for (const auto &batch : m_batches) {
        if (batch->isDone)
            m_output.write(batch->lines);
    }
    if (m_output.error())
        fail(complaint("standard output", m_output.error()));
    if (m_options.list)
        sumUp();
    Q_EMIT finished(m_exitStatus);
}

void SumRun::sumUp()
{
    if (m_files == 0 && !m_isStopped)
        fail(complaint(*m_options.list + ": no file is listed"));
    if (m_failures > 0)
        fail(complaint(QByteArray::number(m_failures) + " of " + QByteArray::number(m_files) + " files failed"));
}

void SumRun::fail(const QByteArray &complaints)
{
    m_errorOutput.write(complaints);
    if (m_exitStatus == 0)
        m_exitStatus = 1;
}

// The total is counted beside the work; a list does not tell sizes, so that there is none.
void SumRun::showProgress()
{
    const Total::Figures *total = m_options.list ? nullptr : m_total->figures();
    QString text = QString::number(m_done->files);
    if (total)
        text += QStringLiteral(" of ") + QString::number(total->files);
    m_whole.setProgressText(text + QStringLiteral(" files"));
    m_whole.setProgress(toKibibytes(m_done->bytes), total ? toKibibytes(total->bytes) : 0);
}
