// group-growth: what a child costs a group, in groups of 1,000 and in one of 100,000 children.
//
// Every child is appended, started, reports progress once and ends: those of a hundred small groups against those of a
// large one. Each step is made for all of them before the next one, so that both are equally far from the caches; small
// groups one after the other would be served from there, whatever a large one costs. Children and groups are made
// before the clock runs and destroyed when it has stopped.

#include <zel/tasks/GroupTask.h>
#include <zel/tasks/Task.h>

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <vector>

using zel::Error;
using zel::GroupTask;
using zel::Task;

namespace {

constexpr int total = 100'000;
constexpr int smallSize = 1'000;
constexpr int runs = 9;

struct Setting {
    const char *name;
    GroupTask::CleanupPolicy cleanup;
    bool fails;
};
constexpr Setting settings[] = {
    {"DeleteWithGroup", GroupTask::DeleteWithGroup, false},
    {"DeleteWhenFinished", GroupTask::DeleteWhenFinished, false},
    {"SelfDelete", GroupTask::SelfDelete, false},
    {"all children fail", GroupTask::DeleteWhenFinished, true},
};

constexpr const char *stepNames[] = {"append", "start", "progress", "end"};
/// Nanoseconds per child of each step, and of all.
using Costs = std::array<double, std::size(stepNames) + 1>;

void expect(bool isTrue, const char *what)
{
    if (!isTrue)
        qFatal("group-growth: %s", what);
}

/// A group and its children, which live until the object is destroyed: nothing here handles deletions before.
class Family {
public:
    Family(int size, const Setting &setting)
        : m_outcome(setting.fails ? Error(zel::UserError) : Error())
        , m_children(size)
    {
        m_group.setCleanupPolicy(setting.cleanup);
        m_group.setChildFailurePolicy(GroupTask::ContinueOnFailure);
        for (Task *&child : m_children)
            child = new Task(Task::Asynchronous);
    }
    ~Family()
    {
        if (m_group.cleanupPolicy() == GroupTask::SelfDelete)
            qDeleteAll(m_children);
        else
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    Q_DISABLE_COPY_MOVE(Family)

    void append()
    {
        for (Task *child : m_children)
            m_group.append(child);
    }
    void start()
    {
        for (Task *child : m_children)
            child->exec();
    }
    void progress()
    {
        for (Task *child : m_children)
            child->setProgress(1, 2);
    }
    void end()
    {
        for (Task *child : m_children)
            child->finish(m_outcome);
    }

    bool hasEnded() const
    {
        return m_group.isFinished() && m_group.error() == m_outcome
            && m_group.currentProgress() == int(m_children.size());
    }

private:
    const Error m_outcome;
    GroupTask m_group;
    std::vector<Task *> m_children;
};

Costs measure(int size, const Setting &setting)
{
    constexpr void (Family::*steps[])() = {&Family::append, &Family::start, &Family::progress, &Family::end};
    std::array<qint64, std::size(steps)> times{};
    QElapsedTimer timer;
    std::vector<std::unique_ptr<Family>> families(total / size);
    for (auto &family : families)
        family = std::make_unique<Family>(size, setting);
    for (size_t step = 0; step < std::size(steps); ++step) {
        timer.start();
        for (const auto &family : families)
            (family.get()->*steps[step])();
        QCoreApplication::sendPostedEvents();
        times[step] += timer.nsecsElapsed();
    }
    for (const auto &family : families)
        expect(family->hasEnded(), "a group has not ended as it should");

    Costs costs{};
    for (size_t step = 0; step < std::size(steps); ++step) {
        costs[step] = double(times[step]) / total;
        costs.back() += costs[step];
    }
    return costs;
}

/// Small and large in turn, so that a slow moment of the machine meets both. The first round only maps the memory.
std::pair<Costs, Costs> medians(const Setting &setting)
{
    std::vector<Costs> small;
    std::vector<Costs> large;
    for (int run = 0; run <= runs; ++run) {
        small.push_back(measure(smallSize, setting));
        large.push_back(measure(total, setting));
    }
    const auto median = [](std::vector<Costs> all) {
        Costs result{};
        for (size_t step = 0; step < result.size(); ++step) {
            const auto isCheaper = [step](const Costs &left, const Costs &right) { return left[step] < right[step]; };
            std::nth_element(all.begin() + 1, all.begin() + 1 + runs / 2, all.end(), isCheaper);
            result[step] = all[1 + runs / 2][step];
        }
        return result;
    };
    return {median(small), median(large)};
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    std::printf("ns per child, medians of %d runs\n\n", runs);
    std::printf("%-19s %-9s %9d %9d %6s\n", "", "", smallSize, total, "ratio");
    for (const Setting &setting : settings) {
        const auto [small, large] = medians(setting);
        for (size_t step = 0; step < small.size(); ++step) {
            std::printf("%-19s %-9s %9.0f %9.0f %6.2f\n", step == 0 ? setting.name : "",
                        step < std::size(stepNames) ? stepNames[step] : "together", small[step], large[step],
                        large[step] / small[step]);
        }
    }
}
