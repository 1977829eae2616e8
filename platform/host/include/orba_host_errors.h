/// @file orba_host_errors.h
/// @brief The error numbers of the host edition.
///
/// ORBATOVRAErrGet() gives one of them after a failed call of the account-service library. The
/// status of a failed call is the number's negative, KLIBGetSerialNumber() included.
#ifndef ORBA_HOST_ERRORS_H
#define ORBA_HOST_ERRORS_H

typedef enum OrbaHostError {
    ORBA_HOST_OK = 0,
    ORBA_HOST_INVALID_ARGUMENT = 1,  ///< null, a size of 0, or a server or path that is no URL part
    ORBA_HOST_OUT_OF_MEMORY = 2,

    ORBA_HOST_PROFILE_MISSING = 10,     ///< there is no profile at its path, or no path for it
    ORBA_HOST_PROFILE_UNREADABLE = 11,  ///< it is no regular file, or reading it is refused
    ORBA_HOST_PROFILE_TOO_LARGE = 12,   ///< it has more than 1 MiB
    ORBA_HOST_PROFILE_MALFORMED = 13,   ///< it is no JSON object in UTF-8, or nested too deeply
    ORBA_HOST_PROFILE_NOT_WRITABLE = 14,

    ORBA_HOST_MEMBER_MISSING = 20,   ///< the profile lacks it, or it is null or an empty text
    ORBA_HOST_MEMBER_TYPE = 21,      ///< it is no text, or holds a control character
    ORBA_HOST_MEMBER_TOO_LONG = 22,  ///< it does not fit the caller's record or buffer

    ORBA_HOST_REQUEST_NOT_RESOLVED = 30,  ///< the server's name has no address
    ORBA_HOST_REQUEST_NOT_CONNECTED = 31,
    ORBA_HOST_REQUEST_CERTIFICATE = 32,  ///< the server's certificate is not trusted
    ORBA_HOST_REQUEST_TIMEOUT = 33,
    ORBA_HOST_REQUEST_TRANSPORT = 34,  ///< any other failure of libcurl or the connection

    ORBA_HOST_REPLY_STATUS = 40,     ///< an HTTP status outside of 200 to 299
    ORBA_HOST_REPLY_TOO_LARGE = 41,  ///< a body of more than 1 MiB
    ORBA_HOST_REPLY_REFUSED = 42     ///< the account service answered, but gave no grant
} OrbaHostError;

#endif
