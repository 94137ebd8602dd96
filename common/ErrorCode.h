#pragma once

namespace zel {

/**
 * What went wrong, as a number that can be stored and compared.
 *
 * Applications may use numbers of their own from UserError on; every other number is reserved. The numbers are part
 * of the interface and do not change.
 */
enum ErrorCode : int {
    NoError = 0,          ///< success
    GeneralError = 1,     ///< failed for a reason that only the text tells
    InvalidArgument = 3,  ///< a value was handed over that cannot be used
    InvalidState = 5,     ///< the operation is not possible in the present state
    NotSupported = 7,     ///< there is no such operation here
    OutOfResources = 9,   ///< memory, threads, handles or space ran out
    NotFound = 12,        ///< what was asked for does not exist
    AlreadyExists = 14,   ///< what was to be made exists already
    AccessDenied = 16,    ///< a permission is missing
    Canceled = 20,        ///< ended on request before it was done
    Interrupted = 23,     ///< ended from outside before it was done
    Timeout = 27,         ///< did not end in the time given
    Busy = 29,            ///< used by somebody else at the moment
    ReadError = 32,       ///< data could not be read
    WriteError = 34,      ///< data could not be written
    FormatError = 36,     ///< data were read and make no sense
    ConnectionError = 40, ///< the other side could not be reached or was lost
    ProtocolError = 42,   ///< the other side answered in a way that makes no sense
    UserError = 1000,     ///< first number that is free for applications
};

} // namespace zel
