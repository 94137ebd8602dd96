#include "SumRun.h"

#include "ChecksumList.h"
#include "Complaint.h"
#include "FolderWalk.h"

#include <QMetaObject>

#include <sys/stat.h>

#include <limits>
#include <utility>

using zel::Error;
using zel::GroupTask;
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
void failAll(Batch &batch, const Error &error)
{
    for (const Item &item : batch.items)
        batch.complaints += complaint(item.path, error.displayText().toLocal8Bit());
    batch.failures = int(batch.items.size());
}

bool isSmallFile(const QByteArray &path)
{
    struct stat status;
    return ::stat(path.constData(), &status) != 0 || (!S_ISDIR(status.st_mode) && status.st_size < maxBatchSize);
}

using Parts = std::vector<std::vector<QByteArray>>;

/// Each path by itself; but small files that are given side by side stay together, so that they can share a task.
Parts partsOf(const std::vector<QByteArray> &paths)
{
    Parts parts;
    bool isOpen = false;
    for (const QByteArray &path : paths) {
        const bool isSmall = isSmallFile(path);
        if (isSmall && isOpen)
            parts.back().push_back(path);
        else
            parts.push_back({path});
        isOpen = isSmall;
    }
    return parts;
}

} // namespace

SumRun::SumRun(const Options &options, Output &output, Output &errorOutput, ProgressLine &progressLine)
    : m_options(options)
    , m_output(output)
    , m_errorOutput(errorOutput)
    , m_progressLine(progressLine)
{
    m_whole.setChildFailurePolicy(options.failsFast ? GroupTask::FailFast : GroupTask::ContinueOnFailure);
    m_whole.setCancelSubtasksMode(GroupTask::CancelSubtasks);
    m_whole.connectTo(&m_progressLine, Qt::DirectConnection);
    connect(&m_whole, &Task::canceled, this, [this] { stop(interruptedStatus); });
    connect(&m_whole, &Task::finished, this, &SumRun::onWholeFinished);
    connect(&m_progressTimer, &QTimer::timeout, this, &SumRun::showProgress);
    m_queue.setMaxRunningTasksCount(options.jobs);
    m_queue.setTaskErrorPolicy(options.failsFast ? TasksQueue::ClearOnError : TasksQueue::ContinueOnError);
}

void SumRun::start()
{
    m_rest = new Task(Task::Asynchronous, this);
    if (m_progressLine.isShown()) {
        m_total = std::make_unique<Total>(m_options.paths);
        showProgress();
        m_progressTimer.start(timeBetweenFigures);
    }
    m_whole.append(m_rest);
    m_rest->exec();
    m_parts = m_options.list ? Parts{{*m_options.list}} : partsOf(m_options.paths);
    openSource();
}

void SumRun::stop(int exitStatus)
{
    // Canceling the whole, below, comes back here.
    if (m_isFinished || std::exchange(m_isStopping, true))
        return;
    m_exitStatus = exitStatus;
    m_isStopped = true;
    m_hasMore = false;
    const QDeadlineTimer deadline(timeToPrintAfterStop);
    m_output.setDeadline(deadline);
    m_errorOutput.setDeadline(deadline);
    m_whole.cancel();
    finish();
}

void SumRun::openSource()
{
    const std::vector<QByteArray> &part = m_parts[m_nextPart++];
    std::unique_ptr<Source> source;
    if (m_options.list)
        source = std::make_unique<ChecksumList>(part.front(), 2 * QCryptographicHash::hashLength(m_options.algorithm));
    else
        source = std::make_unique<FolderWalk>(part);
    m_path = new PathSum(std::move(source), m_options.failsFast, this);
    m_whole.append(m_path);
    m_path->setQueue(&m_queue);
    m_path->exec();
    feedSoon();
}

void SumRun::closeSource()
{
    submitBatch();
    m_path->closeSource();
    if (m_nextPart < m_parts.size())
        return openSource();
    m_hasMore = false;
    m_rest->finish();
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
        next = m_path->source().next(item);
    while (next == Source::File && !take(std::move(item)));

    switch (next) {
    case Source::File:
    case Source::Nothing:
        return feedSoon();
    case Source::Problem:
        return onProblem(item);
    case Source::Wait:
        submitBatch();
        return waitForSource();
    case Source::End:
        return closeSource();
    }
}

void SumRun::feedSoon()
{
    if (!std::exchange(m_isFeedPosted, true))
        QMetaObject::invokeMethod(this, &SumRun::feed, Qt::QueuedConnection);
}

bool SumRun::hasRoom() const
{
    return m_unfinished.size() < maxWaitingTasks + m_options.jobs && m_batches.size() < maxHeldBatches;
}

void SumRun::waitForSource()
{
    if (!m_moreToRead) {
        m_moreToRead = std::make_unique<QSocketNotifier>(m_path->source().waitDescriptor(), QSocketNotifier::Read);
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
    const auto work = [batch, algorithm = m_options.algorithm, failsFast = m_options.failsFast] {
        return hashBatch(*batch, algorithm, failsFast);
    };
    auto *task = new Task(std::function<Error()>(work), Task::WorkingThread);
    task->setProgress(0, toKibibytes(batch->size));
    task->setPriority(priorityFor(batch->size));
    task->setThreadTerminationEnabled(false);
    // The work looks for a request to stop after each block, and holds all it needs: nobody has to wait for it.
    task->setThreadWaitTime(0);
    connect(task, &Task::finished, this, [this, task] { onTaskFinished(*task); });
    m_batches.push_back(batch);
    m_unfinished.insert(task, batch);
    m_submittedSize += toKibibytes(batch->size);
    m_path->submit(task);
}

void SumRun::onProblem(const Item &item)
{
    fail(complaint(item.path, item.problem));
    if (m_options.failsFast)
        return stop(1);
    m_path->addProblem(Error(zel::ReadError, QString::fromLocal8Bit(item.problem)));
    feedSoon();
}

void SumRun::onTaskFinished(Task &task)
{
    const std::shared_ptr<Batch> finished = m_unfinished.take(&task);
    // Its work may still be writing to the batch.
    if (task.isCanceled() || m_isStopped)
        return;
    Batch &batch = *finished;
    if (task.hasError() && batch.failures == 0)
        failAll(batch, task.error());
    if (task.hasError())
        fail(batch.complaints);
    // The groups stop what is under way; it may return later than this run.
    if (task.hasError() && m_options.failsFast) {
        m_isStopped = true;
        m_hasMore = false;
    }
    m_failures += batch.failures;
    m_doneFiles += batch.items.size();
    task.setProgress(toKibibytes(batch.size), toKibibytes(batch.size));
    batch.isDone = true;
    batch.items = {}; // what is held until its turn comes are the lines
    printDone();
    feedSoon();
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

void SumRun::onWholeFinished()
{
    // What a stop signal kept from being written is the business of the stop() that follows.
    if (!m_output.hasRest())
        finish();
}

void SumRun::finish()
{
    if (std::exchange(m_isFinished, true))
        return;
    m_progressTimer.stop();
    m_progressLine.clear();
    for (const auto &batch : m_batches) {
        if (batch->isDone)
            m_output.write(batch->lines);
    }
    if (m_output.error())
        fail(complaint("standard output", reasonOf(m_output.error())));
    if (const QByteArray text = summary(); !text.isEmpty())
        fail(complaint(text));
    Q_EMIT finished(m_exitStatus);
}

QByteArray SumRun::summary() const
{
    if (m_options.list && m_files == 0 && !m_isStopped)
        return *m_options.list + ": no file is listed";
    const QByteArray figures = QByteArray::number(m_failures) + " of " + QByteArray::number(m_files) + " files failed";
    if (m_options.list)
        return m_failures > 0 ? figures : QByteArray();
    // One complaint speaks for itself.
    QString reasons = m_whole.error().text();
    return m_failures > 1 ? figures + ": " + reasons.replace(u'\n', QLatin1String("; ")).toLocal8Bit() : QByteArray();
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
    qint64 files = m_doneFiles;
    for (auto unfinished = m_unfinished.cbegin(); unfinished != m_unfinished.cend(); ++unfinished) {
        const Batch &batch = **unfinished;
        files += batch.done.files;
        if (unfinished.key()->isRunning())
            unfinished.key()->setProgress(toKibibytes(batch.done.bytes), toKibibytes(batch.size));
    }
    const Total::Figures *total = m_options.list ? nullptr : m_total->figures();
    QString text = QString::number(files);
    if (total) {
        text += QStringLiteral(" of ") + QString::number(total->files);
        m_progressLine.setTotalIsFinal();
    }
    if (total && m_rest)
        m_rest->setProgress(0, qMax(0, toKibibytes(total->bytes - m_submittedSize * 1024)));
    m_whole.setProgressText(text + QStringLiteral(" files"));
}
