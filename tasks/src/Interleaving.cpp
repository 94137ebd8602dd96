#include "Interleaving.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#ifdef Q_OS_UNIX
#include <pthread.h>
#endif

namespace zel {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto relaxed = std::memory_order_relaxed;
constexpr quint64 keptPoints = 24;
constexpr int firstFreeNumber = 100;

/// What others see of a thread. Accesses are relaxed: the scheduler must not order what it is there to disorder.
struct Slot {
    std::atomic<bool> isTaken;
    std::atomic<int> number;
    std::atomic<const char *> threadName;
    std::atomic<quint64> passed; ///< by all threads that had this place
    std::atomic<quint64> passedBefore;
    std::atomic<quint32> priority;
    std::array<std::atomic<const char *>, keptPoints> points;
};

constinit std::array<Slot, 256> slots{};
/// One more than the last slot that was ever taken.
constinit std::atomic<size_t> usedSlots = 0;
/// 0 while nothing is held up.
constinit std::atomic<quint32> presentRound = 0;
constinit std::atomic<quint64> presentSeed = 0;
constinit std::atomic<int> nextFreeNumber = firstFreeNumber;

quint64 mixed(quint64 value)
{
    value += 0x9e3779b97f4a7c15;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
    value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
    return value ^ (value >> 31);
}

// By its text: addresses differ from process to process.
quint64 hashOf(const char *name)
{
    quint64 hash = 0xcbf29ce484222325;
    for (; *name; ++name)
        hash = (hash ^ quint64(*name)) * 0x100000001b3;
    return hash;
}

// A terminated thread must not be unwound in here, where the library does not expect it.
void rest(std::chrono::microseconds time)
{
#ifdef Q_OS_UNIX
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
#endif
    std::this_thread::sleep_for(time);
#ifdef Q_OS_UNIX
    pthread_setcancelstate(state, nullptr);
#endif
}

/// How often, in a thousand points, and where threads are held up in a round.
struct Temper {
    explicit Temper(quint64 seed)
        : yields(int(seed % 4) * 30)
        , sleeps(int(seed / 4 % 4) * 5)
        , blocks(int(seed / 16 % 4) * 10)
        , usesPriorities(seed / 64 % 2 == 1)
        , isSlowSomewhere(seed / 128 % 4 != 0)
        , slowPlace(seed / 512 % placesPerSlowOne)
    {
    }

    bool isSlowAt(const char *name) const { return isSlowSomewhere && hashOf(name) % placesPerSlowOne == slowPlace; }

    static constexpr quint64 placesPerSlowOne = 16;
    int yields;
    int sleeps;
    int blocks;
    bool usesPriorities; ///< the thread of lowest priority lets others go first, at every point
    bool isSlowSomewhere;
    quint64 slowPlace; ///< points with such a name hold threads up for longer
};

/// The calling thread, as the scheduler knows it.
class Self {
public:
    Self() = default;
    ~Self()
    {
        if (m_slot)
            m_slot->isTaken.store(false, relaxed);
        isOver = true;
    }
    Q_DISABLE_COPY_MOVE(Self)

    /// Null while the thread's last variables are destroyed.
    static Self *instance();
    bool enter(int number, const char *name);
    void pass(const char *name, quint32 round);

private:
    void beginRound(quint32 round);
    quint32 random(quint32 bound) { return quint32(mixed(++m_state) % bound); }
    void record(const char *name);
    quint64 passedByOthers() const;
    bool isLast() const;
    bool letOthersPass(quint64 points, std::chrono::microseconds limit);

    static thread_local bool isOver;
    Slot *m_slot = nullptr;
    quint32 m_round = 0;
    quint64 m_state = 0;
    Temper m_temper{0};
};

thread_local bool Self::isOver = false;

Self *Self::instance()
{
    static thread_local Self self;
    return isOver ? nullptr : &self;
}

bool Self::enter(int number, const char *name)
{
    for (size_t index = 0; !m_slot && index < slots.size(); ++index) {
        bool isTaken = false;
        if (!slots[index].isTaken.compare_exchange_strong(isTaken, true, relaxed))
            continue;
        m_slot = &slots[index];
        for (size_t used = usedSlots.load(relaxed); used <= index;) {
            if (usedSlots.compare_exchange_weak(used, index + 1, relaxed))
                break;
        }
    }
    if (!m_slot)
        return false;
    m_slot->number.store(number, relaxed);
    m_slot->threadName.store(name, relaxed);
    m_slot->passedBefore.store(m_slot->passed.load(relaxed), relaxed);
    m_round = 0;
    return true;
}

void Self::beginRound(quint32 round)
{
    const quint64 seed = presentSeed.load(relaxed);
    m_round = round;
    m_state = mixed(seed ^ mixed(quint64(m_slot->number.load(relaxed))));
    m_temper = Temper(mixed(seed));
    m_slot->priority.store(random(1'000'000), relaxed);
}

void Self::record(const char *name)
{
    const quint64 passed = m_slot->passed.load(relaxed);
    m_slot->points[passed % keptPoints].store(name, relaxed);
    m_slot->passed.store(passed + 1, relaxed);
}

void Self::pass(const char *name, quint32 round)
{
    if (!m_slot && !enter(nextFreeNumber.fetch_add(1, relaxed), "working thread"))
        return;
    if (m_round != round)
        beginRound(round);
    record(name);
    const int chance = int(random(1000));
    if (m_temper.isSlowAt(name) && random(3) == 0)
        letOthersPass(10 + random(50), 3ms);
    else if (chance < m_temper.yields)
        std::this_thread::yield();
    else if (chance < m_temper.yields + m_temper.sleeps)
        rest(std::chrono::microseconds(50 + random(450)));
    else if (chance < m_temper.yields + m_temper.sleeps + m_temper.blocks)
        letOthersPass(1 + random(20), 2ms);
    if (!m_temper.usesPriorities)
        return;
    // When nobody makes use of it, another thread may be the one that waits.
    if (chance == 999 || (isLast() && !letOthersPass(1 + random(4), 200us)))
        m_slot->priority.store(random(1'000'000), relaxed);
}

quint64 Self::passedByOthers() const
{
    quint64 sum = 0;
    for (size_t index = 0, used = usedSlots.load(relaxed); index < used; ++index)
        sum += &slots[index] == m_slot ? 0 : slots[index].passed.load(relaxed);
    return sum;
}

bool Self::isLast() const
{
    const quint32 own = m_slot->priority.load(relaxed);
    for (size_t index = 0, used = usedSlots.load(relaxed); index < used; ++index) {
        if (slots[index].isTaken.load(relaxed) && slots[index].priority.load(relaxed) < own)
            return false;
    }
    return true;
}

// Polls: to be woken by the others would order them.
bool Self::letOthersPass(quint64 points, std::chrono::microseconds limit)
{
    const auto end = Clock::now() + limit;
    const quint64 before = passedByOthers();
    while (Clock::now() < end) {
        rest(20us);
        if (passedByOthers() - before >= points)
            return true;
    }
    return false;
}

} // namespace

void interleavingPoint(const char *name)
{
    const quint32 round = presentRound.load(relaxed);
    if (round == 0)
        return;
    if (Self *self = Self::instance())
        self->pass(name, round);
}

void startInterleaving(quint64 seed)
{
    static std::atomic<quint32> lastRound = 0;
    nextFreeNumber.store(firstFreeNumber, relaxed);
    presentSeed.store(seed, relaxed);
    presentRound.store(lastRound.fetch_add(1, relaxed) + 1, relaxed);
}

void stopInterleaving()
{
    presentRound.store(0, relaxed);
}

void reportInterleaving()
{
    for (size_t index = 0, used = usedSlots.load(relaxed); index < used; ++index) {
        const Slot &slot = slots[index];
        if (!slot.isTaken.load(relaxed))
            continue;
        const quint64 passed = slot.passed.load(relaxed);
        const quint64 first = slot.passedBefore.load(relaxed);
        std::fprintf(stderr, "%s %d, last of %llu points:", slot.threadName.load(relaxed), slot.number.load(relaxed),
                     static_cast<unsigned long long>(passed - first));
        for (quint64 point = passed - first > keptPoints ? passed - keptPoints : first; point < passed; ++point)
            std::fprintf(stderr, " %s;", slot.points[point % keptPoints].load(relaxed));
        std::fprintf(stderr, "\n");
    }
}

InterleavingThread::InterleavingThread(int number, const char *name)
{
    if (Self *self = Self::instance())
        self->enter(number, name);
}

InterleavingThread::~InterleavingThread() = default;

} // namespace zel
