#include "ProgressLine.h"

#include <QLocale>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr int timeBetweenDrawings = 100; // milliseconds
constexpr char clearToEndOfLine[] = "\033[K";

QByteArray sizeText(qint64 kibibytes)
{
    return QLocale::c().formattedDataSize(kibibytes * 1024, 1).toLatin1();
}

QByteArray timeText(qint64 seconds)
{
    return QByteArray::number(seconds / 60) + ':' + QByteArray::number(seconds % 60).rightJustified(2, '0');
}

void put(int descriptor, const QByteArray &text)
{
    // A line that does not get through is no loss.
    static_cast<void>(::write(descriptor, text.constData(), size_t(text.size())) < 0);
}

} // namespace

ProgressLine::ProgressLine(int descriptor, bool isShown) : m_descriptor(descriptor), m_isShown(isShown)
{
    m_sinceStart.start();
}

ProgressLine::~ProgressLine()
{
    clear();
}

void ProgressLine::requestCancel()
{
    Q_EMIT cancelRequested();
}

void ProgressLine::clear()
{
    if (std::exchange(m_isDrawn, false))
        put(m_descriptor, QByteArray("\r") + clearToEndOfLine);
}

void ProgressLine::showProgress(int value, int total)
{
    if (!m_isShown || (m_sinceDrawn.isValid() && m_sinceDrawn.elapsed() < timeBetweenDrawings))
        return;
    m_sinceDrawn.start();
    m_isDrawn = true;
    put(m_descriptor, '\r' + fitted(m_text + ", " + figures(value, m_isTotalFinal ? total : 0)) + clearToEndOfLine);
}

void ProgressLine::showProgressText(const QString &text)
{
    m_text = text.toLocal8Bit();
}

QByteArray ProgressLine::figures(qint64 value, qint64 total) const
{
    const qint64 elapsed = std::max<qint64>(m_sinceStart.elapsed(), 1);
    const qint64 perSecond = value * 1000 / elapsed;
    QByteArray text = sizeText(value);
    if (total > 0)
        text += " of " + sizeText(total);
    text += ", " + sizeText(perSecond) + "/s";
    if (total > value && perSecond > 0)
        text += ", " + timeText((total - value) / perSecond) + " left";
    return text;
}

// A line that wraps could not be taken back.
QByteArray ProgressLine::fitted(QByteArray line) const
{
    winsize size{};
    const bool isKnown = ::ioctl(m_descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    line.truncate(isKnown ? size.ws_col - 1 : 79);
    return line;
}
