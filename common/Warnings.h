#pragma once

#include <zel/common/zel_common_export.h>

#include <QList>
#include <QString>

namespace zel {

/**
 * A list of remarks that go with a result: what was worth saying although it did not make the work fail.
 *
 * The public operations reach the list through the protected virtual ones, so that a subclass can filter or forward
 * what is added.
 */
class ZEL_COMMON_EXPORT Warnings {
public:
    Warnings();
    Warnings(const Warnings &other);
    Warnings(Warnings &&other) noexcept;
    Warnings &operator=(const Warnings &other);
    Warnings &operator=(Warnings &&other) noexcept;
    virtual ~Warnings();

    /// The warnings in the order in which they were added.
    QList<QString> warnings() const;
    bool hasWarnings() const;

    void addWarning(const QString &warning);
    void addWarnings(const QList<QString> &warnings);
    void clearWarnings();
    /// Replaces all warnings by one.
    void resetWarning(const QString &warning);
    /// Replaces all warnings by the given ones.
    void resetWarnings(const QList<QString> &warnings);

protected:
    virtual void addWarningInternal(const QString &warning);
    virtual void addWarningsInternal(const QList<QString> &warnings);
    virtual void clearWarningsInternal();
    virtual void resetWarningInternal(const QString &warning);
    virtual void resetWarningsInternal(const QList<QString> &warnings);

private:
    QList<QString> m_warnings;
};

} // namespace zel
