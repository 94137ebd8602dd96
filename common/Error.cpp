#include <zel/common/Error.h>

#include <QCoreApplication>
#include <QHashFunctions>
#include <QSharedData>

#include <algorithm>
#include <iterator>

namespace zel {

/// What most errors do without; absent as long as there is neither a text nor a place.
class ErrorData : public QSharedData {
public:
    QString text;
    QList<Error::Place> places;
};

namespace {

struct CodeEntry {
    ErrorCode code;
    const char *name;
    const char *text;
};

constexpr CodeEntry codeEntries[] = {
    {NoError, "NoError", nullptr},
    {GeneralError, "GeneralError", QT_TRANSLATE_NOOP("zel::Error", "General error")},
    {InvalidArgument, "InvalidArgument", QT_TRANSLATE_NOOP("zel::Error", "Invalid argument")},
    {InvalidState, "InvalidState", QT_TRANSLATE_NOOP("zel::Error", "Not possible in the present state")},
    {NotSupported, "NotSupported", QT_TRANSLATE_NOOP("zel::Error", "Not supported")},
    {OutOfResources, "OutOfResources", QT_TRANSLATE_NOOP("zel::Error", "Out of resources")},
    {NotFound, "NotFound", QT_TRANSLATE_NOOP("zel::Error", "Not found")},
    {AlreadyExists, "AlreadyExists", QT_TRANSLATE_NOOP("zel::Error", "Already exists")},
    {AccessDenied, "AccessDenied", QT_TRANSLATE_NOOP("zel::Error", "Access denied")},
    {Canceled, "Canceled", QT_TRANSLATE_NOOP("zel::Error", "Canceled")},
    {Interrupted, "Interrupted", QT_TRANSLATE_NOOP("zel::Error", "Interrupted")},
    {Timeout, "Timeout", QT_TRANSLATE_NOOP("zel::Error", "Timed out")},
    {Busy, "Busy", QT_TRANSLATE_NOOP("zel::Error", "Busy")},
    {ReadError, "ReadError", QT_TRANSLATE_NOOP("zel::Error", "Read error")},
    {WriteError, "WriteError", QT_TRANSLATE_NOOP("zel::Error", "Write error")},
    {FormatError, "FormatError", QT_TRANSLATE_NOOP("zel::Error", "Invalid format")},
    {ConnectionError, "ConnectionError", QT_TRANSLATE_NOOP("zel::Error", "Connection error")},
    {ProtocolError, "ProtocolError", QT_TRANSLATE_NOOP("zel::Error", "Protocol error")},
};

const CodeEntry *findEntry(ErrorCode code)
{
    const auto entry = std::find_if(std::begin(codeEntries), std::end(codeEntries),
                                    [code](const CodeEntry &candidate) { return candidate.code == code; });
    return entry == std::end(codeEntries) ? nullptr : entry;
}

// Operations invoked by name find their argument types by the names that the signatures spell.
void registerMetaTypes()
{
    qRegisterMetaType<Error>("Error");
    qRegisterMetaType<Error>("Err");
    qRegisterMetaType<Error>("zel::Err");
}
Q_CONSTRUCTOR_FUNCTION(registerMetaTypes)

} // namespace

Error::Error() = default;

Error::Error(ErrorCode code) : m_code(code) { }

Error::Error(ErrorCode code, const QString &text) : m_code(code)
{
    if (!text.isEmpty()) {
        d = new ErrorData;
        d->text = text;
    }
}

Error::Error(const Error &other) = default;
Error::Error(Error &&other) noexcept = default;
Error &Error::operator=(const Error &other) = default;
Error &Error::operator=(Error &&other) noexcept = default;
Error::~Error() = default;

Error &Error::operator=(ErrorCode code)
{
    return *this = Error(code);
}

ErrorCode Error::code() const
{
    return m_code;
}

QString Error::text() const
{
    return d ? d->text : QString();
}

QString Error::displayText() const
{
    const QString own = text();
    return own.isEmpty() ? codeText(m_code) : own;
}

bool Error::hasError() const
{
    return m_code != NoError;
}

bool Error::equals(ErrorCode code) const
{
    return m_code == code;
}

bool Error::equals(const Error &other) const
{
    return m_code == other.m_code && text() == other.text() && warnings() == other.warnings();
}

Error &Error::ecatch(const char *function, const char *file, int line)
{
    if (!d)
        d = new ErrorData;
    d->places.append({QString::fromUtf8(function), QString::fromUtf8(file), line});
    return *this;
}

QList<Error::Place> Error::places() const
{
    return d ? d->places : QList<Place>();
}

QString Error::codeName(ErrorCode code)
{
    const CodeEntry *entry = findEntry(code);
    return entry ? QString::fromLatin1(entry->name) : QString();
}

QString Error::codeText(ErrorCode code)
{
    if (code == NoError)
        return QString();
    const CodeEntry *entry = findEntry(code);
    if (!entry)
        return QCoreApplication::translate("zel::Error", "Error %1").arg(int(code));
    return QCoreApplication::translate("zel::Error", entry->text);
}

size_t qHash(const Error &error, size_t seed)
{
    return qHashMulti(seed, int(error.code()), error.text(), error.warnings());
}

QDebug operator<<(QDebug debug, const Error &error)
{
    const QDebugStateSaver saver(debug);
    const QString name = Error::codeName(error.code());
    debug.nospace().noquote() << "Error(" << (name.isEmpty() ? QStringLiteral("code") : name) << ' '
                              << int(error.code());
    if (error.hasError())
        debug.quote() << ", " << error.displayText();
    if (error.hasWarnings())
        debug.quote() << ", warnings: " << error.warnings();
    const QList<Error::Place> places = error.places();
    for (const Error::Place &place : places)
        debug.noquote() << ", caught in " << place.function << " (" << place.file << ':' << place.line << ')';
    debug << ')';
    return debug;
}

} // namespace zel
