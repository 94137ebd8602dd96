#pragma once

#include <QByteArray>

/// A file to hash.
struct Item {
    QByteArray path;     ///< bytes as the system knows them, in whatever encoding
    qint64 size = 0;     ///< a hint for the order of the work
    QByteArray expected; ///< the digest that the file should have, empty when that is not known
    QByteArray problem;  ///< why there is none, for a person to read
};

/// Where the files to hash come from, one by one, so that there may be any number of them.
class Source {
public:
    enum Next {
        File,    ///< there is a file
        Problem, ///< there is only a problem to tell, with the place that the path names
        Nothing, ///< there was work to do on the way: ask again
        Wait,    ///< there is nothing yet: ask again when waitDescriptor() can be read
        End,     ///< there is nothing more
    };

    virtual ~Source() = default;

    /// Fills \a item for File and Problem.
    virtual Next next(Item &item) = 0;
    /// Becomes readable when there is more after Wait; negative for a source that never waits.
    virtual int waitDescriptor() const { return -1; }
};
