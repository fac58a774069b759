#include "platform/winsock_errors.h"

#include <errno.h>

#include <algorithm>
#include <iterator>

namespace quenmark::platform {
namespace {

struct SystemError {
  int systemError;
  std::int32_t code;
};

constexpr SystemError kSystemErrors[] = {
    {0, 0},
    {EINTR, 10004},
    {EACCES, 10013},
    {EPERM, 10013},
    {EFAULT, 10014},
    {EINVAL, 10022},
    {EMFILE, 10024},
    {ENFILE, 10024},
    {EAGAIN, 10035},
    {EINPROGRESS, 10035},  // a connect under way is "would block" there
    {EALREADY, 10037},
    {EBADF, 10038},  // there a handle that is no socket, whatever the reason
    {ENOTSOCK, 10038},
    {EDESTADDRREQ, 10039},
    {EMSGSIZE, 10040},
    {EPROTOTYPE, 10041},
    {ENOPROTOOPT, 10042},
    {EPROTONOSUPPORT, 10043},
    {ESOCKTNOSUPPORT, 10044},
    {EOPNOTSUPP, 10045},
    {EPFNOSUPPORT, 10046},
    {EAFNOSUPPORT, 10047},
    {EADDRINUSE, 10048},
    {EADDRNOTAVAIL, 10049},
    {ENETDOWN, 10050},
    {ENETUNREACH, 10051},
    {ENETRESET, 10052},
    {ECONNABORTED, 10053},
    {ECONNRESET, 10054},
    {ENOBUFS, 10055},
    {ENOMEM, 10055},
    {EISCONN, 10056},
    {ENOTCONN, 10057},
    {EPIPE, 10058},
    {ESHUTDOWN, 10058},
    {ETOOMANYREFS, 10059},
    {ETIMEDOUT, 10060},
    {ECONNREFUSED, 10061},
    {ELOOP, 10062},
    {ENAMETOOLONG, 10063},
    {EHOSTDOWN, 10064},
    {EHOSTUNREACH, 10065},
    {EUSERS, 10068},
    {EDQUOT, 10069},
    {ESTALE, 10070},
};

struct ErrorText {
  std::int32_t code;
  std::string_view text;
};

// Sorted by code.
constexpr ErrorText kTexts[] = {
    {0, "The operation completed successfully."},
    {5, "Access is denied."},
    {6, "The handle is invalid."},
    {8, "Not enough memory resources are available to process this command."},
    {87, "The parameter is incorrect."},
    {1460, "This operation returned because the timeout period expired."},
    {10004, "A blocking operation was interrupted by a call to WSACancelBlockingCall."},
    {10009, "The file handle supplied is not valid."},
    {10013, "An attempt was made to access a socket in a way forbidden by its access permissions."},
    {10014, "The system detected an invalid pointer address in attempting to use a pointer argument in a call."},
    {10022, "An invalid argument was supplied."},
    {10024, "Too many open sockets."},
    {10035, "A non-blocking socket operation could not be completed immediately."},
    {10036, "A blocking operation is currently executing."},
    {10037, "An operation was attempted on a non-blocking socket that already had an operation in progress."},
    {10038, "An operation was attempted on something that is not a socket."},
    {10039, "A required address was omitted from an operation on a socket."},
    {10040,
     "A message sent on a datagram socket was larger than the internal message buffer or some other network limit, or "
     "the buffer used to receive a datagram into was smaller than the datagram itself."},
    {10041,
     "A protocol was specified in the socket function call that does not support the semantics of the socket type "
     "requested."},
    {10042, "An unknown, invalid, or unsupported option or level was specified in a getsockopt or setsockopt call."},
    {10043, "The requested protocol has not been configured into the system, or no implementation for it exists."},
    {10044, "The support for the specified socket type does not exist in this address family."},
    {10045, "The attempted operation is not supported for the type of object referenced."},
    {10046, "The protocol family has not been configured into the system or no implementation for it exists."},
    {10047, "An address incompatible with the requested protocol was used."},
    {10048, "Only one usage of each socket address (protocol/network address/port) is normally permitted."},
    {10049, "The requested address is not valid in its context."},
    {10050, "A socket operation encountered a dead network."},
    {10051, "A socket operation was attempted to an unreachable network."},
    {10052,
     "The connection has been broken due to keep-alive activity detecting a failure while the operation was in "
     "progress."},
    {10053, "An established connection was aborted by the software in your host machine."},
    {10054, "An existing connection was forcibly closed by the remote host."},
    {10055,
     "An operation on a socket could not be performed because the system lacked sufficient buffer space or because a "
     "queue was full."},
    {10056, "A connect request was made on an already connected socket."},
    {10057,
     "A request to send or receive data was disallowed because the socket is not connected and (when sending on a "
     "datagram socket using a sendto call) no address was supplied."},
    {10058,
     "A request to send or receive data was disallowed because the socket had already been shut down in that direction "
     "with a previous shutdown call."},
    {10059, "Too many references to some kernel object."},
    {10060,
     "A connection attempt failed because the connected party did not properly respond after a period of time, or "
     "established connection failed because connected host has failed to respond."},
    {10061, "No connection could be made because the target machine actively refused it."},
    {10062, "Cannot translate name."},
    {10063, "Name component or name was too long."},
    {10064, "A socket operation failed because the destination host was down."},
    {10065, "A socket operation was attempted to an unreachable host."},
    {10066, "Cannot remove a directory that is not empty."},
    {10067,
     "A Windows Sockets implementation may have a limit on the number of applications that may use it "
     "simultaneously."},
    {10068, "Ran out of quota."},
    {10069, "Ran out of disk quota."},
    {10070, "File handle reference is no longer available."},
    {10071, "Item is not available locally."},
    {10091,
     "WSAStartup cannot function at this time because the underlying system it uses to provide network services is "
     "currently unavailable."},
    {10092, "The Windows Sockets version requested is not supported."},
    {10093, "Either the application has not called WSAStartup, or WSAStartup failed."},
    {10101,
     "Returned by WSARecv or WSARecvFrom to indicate the remote party has initiated a graceful shutdown sequence."},
    {10107, "A system call has failed."},
    {10109, "The specified class was not found."},
    {11001, "No such host is known."},
    {11002,
     "This is usually a temporary error during hostname resolution and means that the local server did not receive a "
     "response from an authoritative server."},
    {11003, "A non-recoverable error occurred during a database lookup."},
    {11004, "The requested name is valid, but no data of the requested type was found."},
};

static_assert(std::is_sorted(std::begin(kTexts), std::end(kTexts),
                             [](const ErrorText& left, const ErrorText& right) { return left.code < right.code; }));

}  // namespace

std::int32_t WinsockErrorOf(int systemError) {
  for (const SystemError& row : kSystemErrors) {
    if (row.systemError == systemError) return row.code;
  }
  return kWsaSystemCallFailure;
}

std::string_view WinsockErrorText(std::int32_t code) {
  const auto bits = static_cast<std::uint32_t>(code);
  if ((bits & 0xFFFF0000U) == 0x80070000U) code = static_cast<std::int32_t>(bits & 0xFFFFU);
  const auto* found = std::lower_bound(std::begin(kTexts), std::end(kTexts), code,
                                       [](const ErrorText& row, std::int32_t wanted) { return row.code < wanted; });
  return found != std::end(kTexts) && found->code == code ? found->text : std::string_view{};
}

}  // namespace quenmark::platform
