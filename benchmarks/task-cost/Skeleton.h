#pragma once

#include <zel/common/Error.h>

#include <QObject>
#include <QQueue>

#include <array>
#include <memory>

/// What the design of a task costs by itself, without any logic: the private part, with its signals.
class SkeletonPrivate : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

Q_SIGNALS:
    void finished();
    void resultChanged(int result);
};

/// What the design of a task costs by itself: two objects, the connection to its own canceled(), and the emissions of
/// one run. The signals stand in the order of those of a task, because Qt's lists of connections are as long as the
/// index of the last connected one.
class Skeleton : public QObject {
    Q_OBJECT
public:
    explicit Skeleton(QObject *parent = nullptr);
    ~Skeleton() override;

    /// The emissions of a run that succeeds.
    void run();
    void start();
    void end();
    void setProgress(int value, int total) { Q_EMIT progress(value, total); }

    SkeletonPrivate *internals() const { return m_private.get(); }
    int priority = 1;

Q_SIGNALS:
    void errorChanged(const zel::Error &error);
    void canceled();
    void finalizing();
    void finished();
    void progressInitiated(int total);
    void progress(int value, int total);
    void progressTextChanged(const QString &text);
    void stateChanged(int state);
    void paused();
    void resumed();
    void started();
    void restarted();
    void selfDelete();
    void priorityChanged(int priority);
    void aboutToDestroy();

private:
    std::unique_ptr<SkeletonPrivate> m_private;
    bool m_isCanceled = false;
};

/// What the design of a queue costs by itself: its connections to each task, and one posted event per finished task.
class SkeletonQueue : public QObject {
    Q_OBJECT
public:
    void append(Skeleton *task);
    /// Runs the first pending task.
    void start();

Q_SIGNALS:
    void idle();

private:
    void onFinished(Skeleton *task);

    std::array<QQueue<Skeleton *>, 11> m_pending; ///< by priority
};

/// What the design of a group costs by itself: its connections to each child, the posted events, and a count.
class SkeletonGroup : public Skeleton {
    Q_OBJECT
public:
    SkeletonGroup();
    void append(Skeleton *child);

    bool deletesChildren = false;

Q_SIGNALS:
    void taskAppended(Skeleton *child);

private:
    void onFinished(Skeleton *child);

    int m_pending = 0;
    int m_sum = 0;
};
