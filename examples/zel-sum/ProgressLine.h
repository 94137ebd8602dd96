#pragma once

#include <zel/common/ProgressBarOutputInterface.h>

#include <QByteArray>
#include <QElapsedTimer>

/**
 * One line on a terminal that says how far the work is, drawn ten times a second at most.
 *
 * The figures are KiB. A total that is not final yet is not shown.
 */
class ProgressLine : public zel::ProgressBarOutputInterface {
    Q_OBJECT
public:
    /// Draws on \a descriptor; a line that is not shown only passes the request to cancel on.
    ProgressLine(int descriptor, bool isShown);
    ~ProgressLine() override;

    bool isShown() const { return m_isShown; }
    void setTotalIsFinal() { m_isTotalFinal = true; }
    void requestCancel();
    /// Makes room for other lines; the next figures draw it again.
    void clear();

    void showProgress(int value, int total) override;
    void showProgressText(const QString &text) override;

private:
    QByteArray figures(qint64 value, qint64 total) const;
    QByteArray fitted(QByteArray line) const;

    const int m_descriptor;
    const bool m_isShown;
    QElapsedTimer m_sinceStart;
    QElapsedTimer m_sinceDrawn;
    QByteArray m_text;
    bool m_isDrawn = false;
    bool m_isTotalFinal = false;
};
