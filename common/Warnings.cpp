#include <zel/common/Warnings.h>

namespace zel {

Warnings::Warnings() = default;
Warnings::Warnings(const Warnings &other) = default;
Warnings::Warnings(Warnings &&other) noexcept = default;
Warnings &Warnings::operator=(const Warnings &other) = default;
Warnings &Warnings::operator=(Warnings &&other) noexcept = default;
Warnings::~Warnings() = default;

QList<QString> Warnings::warnings() const
{
    return m_warnings;
}

bool Warnings::hasWarnings() const
{
    return !m_warnings.isEmpty();
}

void Warnings::addWarning(const QString &warning)
{
    addWarningInternal(warning);
}

void Warnings::addWarnings(const QList<QString> &warnings)
{
    addWarningsInternal(warnings);
}

void Warnings::clearWarnings()
{
    clearWarningsInternal();
}

void Warnings::resetWarning(const QString &warning)
{
    resetWarningInternal(warning);
}

void Warnings::resetWarnings(const QList<QString> &warnings)
{
    resetWarningsInternal(warnings);
}

void Warnings::addWarningInternal(const QString &warning)
{
    m_warnings.append(warning);
}

void Warnings::addWarningsInternal(const QList<QString> &warnings)
{
    m_warnings.append(warnings);
}

void Warnings::clearWarningsInternal()
{
    m_warnings.clear();
}

void Warnings::resetWarningInternal(const QString &warning)
{
    m_warnings = {warning};
}

void Warnings::resetWarningsInternal(const QList<QString> &warnings)
{
    m_warnings = warnings;
}

} // namespace zel
