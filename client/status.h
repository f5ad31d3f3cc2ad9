// SPDX-License-Identifier: MIT
#ifndef STATUS_H
#define STATUS_H

/// What zelsh exits with.
enum Status {
    Success = 0,
    Failed = 1, ///< the command ended with an error
    Usage = 2,
    TimedOut = 124,
    NotAllowed = 126, ///< it runs already, or the user may not run it
    NotFound = 127,
    NoConnection = 255
};

#endif
