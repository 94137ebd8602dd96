#pragma once

#include <zel/common/ErrorCode.h>
#include <zel/common/Warnings.h>
#include <zel/common/zel_common_export.h>

#include <QDebug>
#include <QMetaType>
#include <QSharedDataPointer>
#include <QString>

namespace zel {

class ErrorData;

/**
 * The outcome of a piece of work: success, or an error with a code and an optional text.
 *
 * A value: cheap to copy, implicitly shared, safe to hand to other threads. Warnings can go with a success as well.
 * Two errors are equal when code, text and warnings are; where they were caught does not count.
 */
class ZEL_COMMON_EXPORT Error : public Warnings {
public:
    /// A place where an error was caught, see ecatch().
    struct Place {
        QString function; ///< signature of the function
        QString file;     ///< source file
        int line = 0;     ///< line in that file
    };

    /// No error.
    Error();
    /// An error of that code without a text of its own; NoError is no error.
    Error(ErrorCode code);
    /// An error of that code with that text.
    Error(ErrorCode code, const QString &text);
    /// Takes over code, text, warnings and places. A value that was moved from can be assigned to or destroyed.
    ///@{
    Error(const Error &other);
    Error(Error &&other) noexcept;
    Error &operator=(const Error &other);
    Error &operator=(Error &&other) noexcept;
    ///@}
    /// Makes this value an error of that code; text, warnings and places are gone.
    Error &operator=(ErrorCode code);
    ~Error() override;

    /// The code; NoError is success.
    ErrorCode code() const;
    /// The text given to the constructor; empty when there was none.
    QString text() const;
    /// What to show to a person: text(), or the translated text of the code where there is none.
    QString displayText() const;

    /// Whether this is anything but success.
    bool hasError() const;
    /// Whether this has that code, whatever its text and warnings.
    bool equals(ErrorCode code) const;
    /// Whether code, text and warnings, in their order, are the same.
    bool equals(const Error &other) const;

    /// Notes that the error was caught here, for the log. Returns this error.
    Error &ecatch(const char *function, const char *file, int line);
    /// Where the error was caught, oldest first.
    QList<Place> places() const;

    /// The name of a code as written in the source, empty for a number without a name.
    static QString codeName(ErrorCode code);
    /// The translated text of a code, empty for NoError; "Error" and the number for one without a name.
    static QString codeText(ErrorCode code);

    /// By equals().
    ///@{
    friend bool operator==(const Error &left, const Error &right) { return left.equals(right); }
    friend bool operator!=(const Error &left, const Error &right) { return !left.equals(right); }
    ///@}
    /// Does not compile: say equals(code), which looks at the code alone.
    friend bool operator==(const Error &left, ErrorCode right) = delete;

private:
    ErrorCode m_code = NoError;
    QSharedDataPointer<ErrorData> d;
};

/// The name under which signatures that are invoked by name spell the type.
using Err = Error;

/// Agrees with Error::equals().
ZEL_COMMON_EXPORT size_t qHash(const Error &error, size_t seed = 0);

/// Writes name and number of the code, displayText() of an error, then warnings and places where there are any.
ZEL_COMMON_EXPORT QDebug operator<<(QDebug debug, const Error &error);

} // namespace zel

Q_DECLARE_METATYPE(zel::Error)
