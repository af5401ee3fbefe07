#pragma once

#include "QELsocka.h"

#include <string>
#include <sys/socket.h>
#include <sys/un.h>

/// Value that holds a Unix-domain address (unix(7)): a path of the file system, or a name in the
/// Linux abstract namespace, whose text form starts with "*".
///
/// The length counts the family (2 bytes), the text and its terminating zero, for abstract names
/// too: the zero is part of such a name, so a peer must write it with the zero as well.
class QELsockaddrUNX final : public QELsocka {
  public:
    [[nodiscard]] const sockaddr* sa() const override;
    /// Length handed to the system; 0 for an empty address.
    [[nodiscard]] socklen_t saLen() const override { return len; }

    /// Makes the address empty: no path, length 0, as constructed.
    void clear();

    /// Takes a path ("/dev/log", length 11) or, after a "*", an abstract name ("*name", length 8).
    /// Text beyond 107 characters is cut off; a null or empty text makes the address empty.
    void set(const char* path);

    /// Copies the raw address, which must be a whole sockaddr_un when its family is AF_UNIX. The
    /// length becomes that of the same text given as a path; a path of zero bytes only makes the
    /// address empty. A path that fills all 108 bytes, without a terminating zero, is kept.
    /// @return false, with this address cleared, when the family is another one
    bool set(const sockaddr& other);

    /// The path, "*" and the rest for an abstract name, "" for an empty address.
    [[nodiscard]] std::string toString() const;
    using QELsocka::toString;

    using QELsocka::compare;
    /// Order of the texts, byte by byte up to their first zero byte (strcmp(3)): negative, 0 or
    /// positive. Abstract names come before paths.
    [[nodiscard]] static int compare(const sockaddr_un& a, const sockaddr_un& b);

  private:
    sockaddr_un raw{AF_UNIX, {}};
    socklen_t len = 0;
};
