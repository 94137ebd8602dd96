#pragma once

#include <zel/common/zel_common_export.h>

#include <QList>
#include <QString>

namespace zel {

/**
 * A list of remarks that go with a result: what was worth saying although it did not make the work fail.
 *
 * The public operations change the list through the protected virtual ones, so that a subclass can filter or forward
 * what is added.
 */
class ZEL_COMMON_EXPORT Warnings {
public:
    /// No warnings.
    Warnings();
    /// Takes over the list itself, past the virtual operations.
    ///@{
    Warnings(const Warnings &other);
    Warnings(Warnings &&other) noexcept;
    Warnings &operator=(const Warnings &other);
    Warnings &operator=(Warnings &&other) noexcept;
    ///@}
    virtual ~Warnings();

    /// The warnings in the order in which they were added.
    QList<QString> warnings() const;
    /// Whether there is any warning.
    bool hasWarnings() const;

    /// Adds behind the present warnings, also what is listed already.
    ///@{
    void addWarning(const QString &warning);
    void addWarnings(const QList<QString> &warnings);
    ///@}
    /// Removes all warnings.
    void clearWarnings();
    /// Replaces all warnings by one.
    void resetWarning(const QString &warning);
    /// Replaces all warnings by the given ones.
    void resetWarnings(const QList<QString> &warnings);

protected:
    /// What the public operation of that name does. The defaults change the list and call none of the others.
    ///@{
    virtual void addWarningInternal(const QString &warning);
    virtual void addWarningsInternal(const QList<QString> &warnings);
    virtual void clearWarningsInternal();
    virtual void resetWarningInternal(const QString &warning);
    virtual void resetWarningsInternal(const QList<QString> &warnings);
    ///@}

private:
    QList<QString> m_warnings;
};

} // namespace zel
