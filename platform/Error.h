// Error kinds of the platform.
//
// Three kinds of failure are kept apart (see docs/errors.md):
//  - a peer's bad input (a corrupt table, a bad name, a malformed string form):
//    one of the exceptions below, caught, reported and skipped by the owner;
//  - a local failure (a mount, a socket): an Error with a clear message;
//  - our own broken invariant: a fatal assertion (Assert.h), never an exception.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Platform {

class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A call to the system that failed (open, mmap, inotify_add_watch): a local
// failure, with its errno.
class SystemError : public Error {
  public:
    SystemError( const std::string& what, int code )
        : Error( what + ": " + std::strerror( code ) ), code_( code ) {}
    int code() const { return code_; }
    // The process ran short of something that comes back (descriptors,
    // memory, watches) or raced a file being replaced: worth a retry.
    bool transient() const {
        return code_ == EMFILE || code_ == ENFILE || code_ == ENOMEM || code_ == ENOSPC ||
               code_ == ENOBUFS || code_ == EAGAIN || code_ == EINTR;
    }

  private:
    int code_;
};

// A value outside the bounds of a bounded type ("HopIndex::value < ...").
class RangeError : public Error {
  public:
    using Error::Error;
};

// An operation that the value's kind does not support ("Only router links are
// comparable").
class TypeError : public Error {
  public:
    using Error::Error;
};

// A fixed-capacity array asked to hold more than it can.
class InvalidSizeError : public Error {
  public:
    using Error::Error;
};

// A string form that cannot be parsed back; names the attribute being read.
class DeserializationError : public Error {
  public:
    DeserializationError( const std::string& attribute, const std::string& detail )
        : Error( "cannot deserialize attribute '" + attribute + "': " + detail ),
          attribute_( attribute ) {}
    const std::string& attribute() const { return attribute_; }

  private:
    std::string attribute_;
};

// A name that cannot become a path component of the state tree (client, VRF
// and interface names).
class NameError : public Error {
  public:
    using Error::Error;
};

// Shared-memory content that fails validation: names the table and the problem.
class CorruptionError : public Error {
  public:
    CorruptionError( const std::string& path, const std::string& detail )
        : Error( "corrupt table " + path + ": " + detail ),
          path_( path ),
          detail_( detail ) {}
    const std::string& path() const { return path_; }
    const std::string& detail() const { return detail_; }

  private:
    std::string path_;
    std::string detail_;
};

}  // namespace Platform
