#pragma once

#include "Source.h"

/// The files of a checksum list, with the digests that they should have. Empty lines and those with # are left out.
class ChecksumList : public Source {
public:
    /// Opens the list, "-" being the standard input. \a hexLength is the number of digits of a digest.
    ChecksumList(const QByteArray &path, qsizetype hexLength);
    ~ChecksumList() override;
    Q_DISABLE_COPY_MOVE(ChecksumList)

    Next next(Item &item) override;
    int waitDescriptor() const override { return m_file; }

private:
    bool takeLine(QByteArrayView &line);
    bool fill();
    bool parse(QByteArrayView line, Item &item) const;

    const QByteArray m_path;
    const qsizetype m_hexLength;
    const int m_file;
    int m_error = 0; ///< errno of what ended the list early, until it is told
    bool m_isAtEnd = false;
    QByteArray m_text; ///< read and not taken yet, from m_position on
    qsizetype m_position = 0;
    int m_lineNumber = 0;
};
