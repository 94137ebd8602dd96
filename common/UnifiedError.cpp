#include <zel/common/UnifiedError.h>

#include <QStringList>

#include <algorithm>
#include <tuple>

namespace zel {

namespace {

bool precedes(const Error &left, const Error &right)
{
    return std::forward_as_tuple(left.code(), left.text(), left.warnings())
        < std::forward_as_tuple(right.code(), right.text(), right.warnings());
}

// In a fixed order, because a set is walked in a different one in every run.
QList<Error> sortedCauses(const QSet<Error> &errors)
{
    QList<Error> failures;
    QList<Error> cancellations;
    for (const Error &error : errors) {
        if (error.equals(Canceled))
            cancellations.append(error);
        else if (error.hasError())
            failures.append(error);
    }
    QList<Error> causes = failures.isEmpty() ? cancellations : failures;
    std::sort(causes.begin(), causes.end(), precedes);
    return causes;
}

} // namespace

Error UnifiedError::computeUnifiedError(const QSet<Error> &errors)
{
    const QList<Error> causes = sortedCauses(errors);
    if (causes.isEmpty())
        return Error();
    if (causes.size() == 1)
        return causes.first();

    ErrorCode code = causes.first().code();
    QStringList texts;
    QStringList warnings;
    for (const Error &cause : causes) {
        if (!cause.equals(code))
            code = GeneralError;
        if (!cause.text().isEmpty())
            texts.append(cause.text());
        warnings.append(cause.warnings());
    }
    texts.removeDuplicates();
    warnings.removeDuplicates();

    Error unified(code, texts.join(QLatin1Char('\n')));
    unified.addWarnings(warnings);
    return unified;
}

} // namespace zel
