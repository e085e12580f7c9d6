// The entity framework's exceptions: bad arguments to value types and entities.
#pragma once

#include <stdexcept>
#include <string>

namespace XpLib {

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A value outside the range an attribute or index accepts.
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// A deletion of an attribute that cannot be deleted.
class NondeletableAttrException : public Exception {
 public:
  using Exception::Exception;
};

// A virtual operation that the derived class was expected to provide.
class NoImplementationException : public Exception {
 public:
  using Exception::Exception;
};

// A write to an attribute that is fixed once the entity exists; the message names it.
class ImmutableAttrMutationException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace XpLib
