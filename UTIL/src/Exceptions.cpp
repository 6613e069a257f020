#include "UTIL/src/Exceptions.h"

#include <unistd.h>

#include <cstdio>

#include "XoConfiguration/Configuration.h"

namespace UTIL {

namespace {

// what() of each class composes into its own buffer; callers pass short
// literals, so the unbounded sprintf is accepted.
char assertText[8192];
char fatalText[8192];
char outOfMemoryText[8192];

}  // namespace

ErrorException::~ErrorException() = default;

const char* ErrorException::what() const noexcept { return "ErrorException was thrown."; }

AssertException::AssertException(const char* expression_, const char* file_, long line_)
    : expression(expression_), file(file_), line(line_) {
  std::fprintf(stderr, "assert(%s) failed at %s:%ld\n", expression, file, line);
}

AssertException::AssertException(const AssertException& other)
    : ErrorException(other), expression(other.expression), file(other.file), line(other.line) {}

AssertException& AssertException::operator=(const AssertException& other) {
  expression = other.expression;
  file = other.file;
  line = other.line;
  return *this;
}

AssertException::~AssertException() = default;

const char* AssertException::what() const noexcept {
  std::sprintf(assertText, "assertion(%s) failed at %s:%ld", expression, file, line);
  return assertText;
}

FatalErrorException::FatalErrorException(const char* message_, const char* file_, long line_)
    : message(message_), file(file_), line(line_) {
  std::fprintf(stderr, "Fatal Error: %s at %s:%ld\n", message, file, line);
}

FatalErrorException::FatalErrorException(const FatalErrorException& other)
    : ErrorException(other), message(other.message), file(other.file), line(other.line) {}

FatalErrorException& FatalErrorException::operator=(const FatalErrorException& other) {
  message = other.message;
  file = other.file;
  line = other.line;
  return *this;
}

FatalErrorException::~FatalErrorException() = default;

const char* FatalErrorException::what() const noexcept {
  std::sprintf(fatalText, "Fatal Error: %s\n%s:%ld", message, file, line);
  return fatalText;
}

OutOfMemoryException::OutOfMemoryException(const char* message_, const char* file_, long line_)
    : message(message_), file(file_), line(line_) {
  std::fprintf(stderr, "Out of Memory: %s at %s:%ld\n", message, file, line);
  // A batch render can't recover from running out of memory; ending here
  // avoids destructors that might need memory themselves.
  if (Arbolite3::XoConfiguration::v1::Config().has("SELVANE_BATCH_MODE")) ::_exit(exitCode());
}

OutOfMemoryException::OutOfMemoryException(const OutOfMemoryException& other)
    : ErrorException(other), message(other.message), file(other.file), line(other.line) {}

OutOfMemoryException& OutOfMemoryException::operator=(const OutOfMemoryException& other) {
  message = other.message;
  file = other.file;
  line = other.line;
  return *this;
}

OutOfMemoryException::~OutOfMemoryException() = default;

const char* OutOfMemoryException::what() const noexcept {
  std::sprintf(outOfMemoryText, "Out of Memory: %s\n%s:%ld", message, file, line);
  return outOfMemoryText;
}

int OutOfMemoryException::exitCode() const { return 33; }

}  // namespace UTIL
