#pragma once

#include <zel/tasks/Task.h>

#include <QByteArray>

#include <memory>
#include <vector>

/// What there is to do, counted beside the work. Null while it is being counted.
class Total {
public:
    struct Figures {
        qint64 files = 0;
        qint64 bytes = 0;
    };

    /// Begins to count the files under \a paths on a thread of its own.
    explicit Total(const std::vector<QByteArray> &paths);

    const Figures *figures() const;

private:
    const std::shared_ptr<Figures> m_figures = std::make_shared<Figures>();
    zel::Task m_task;
};
