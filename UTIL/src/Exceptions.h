// The process's own exceptions. Each reports itself with one line on stderr
// when it is constructed (not when copied), so a failure leaves a trace even
// where nobody catches it. They hold only pointers to texts that outlive them
// (string literals), so constructing one allocates nothing.
#pragma once

#include <exception>

namespace UTIL {

class ErrorException : public std::exception {
 public:
  ~ErrorException() override;
  const char* what() const noexcept override;
};

class AssertException : public ErrorException {
 public:
  AssertException(const char* expression, const char* file, long line);
  AssertException(const AssertException& other);
  AssertException& operator=(const AssertException& other);
  ~AssertException() override;
  // Formatted into a buffer shared by all instances: the text of an earlier
  // call is overwritten by the next.
  const char* what() const noexcept override;

  const char* expression;
  const char* file;
  long line;
};

class FatalErrorException : public ErrorException {
 public:
  FatalErrorException(const char* message, const char* file, long line);
  FatalErrorException(const FatalErrorException& other);
  FatalErrorException& operator=(const FatalErrorException& other);
  ~FatalErrorException() override;
  const char* what() const noexcept override;

  const char* message;
  const char* file;
  long line;
};

// In batch mode (configuration key SELVANE_BATCH_MODE present, whatever its
// value) constructing one ends the process at once with exitCode(), without
// unwinding or flushing.
class OutOfMemoryException : public ErrorException {
 public:
  OutOfMemoryException(const char* message, const char* file, long line);
  OutOfMemoryException(const OutOfMemoryException& other);
  OutOfMemoryException& operator=(const OutOfMemoryException& other);
  ~OutOfMemoryException() override;
  const char* what() const noexcept override;
  virtual int exitCode() const;

  const char* message;
  const char* file;
  long line;
};

}  // namespace UTIL
